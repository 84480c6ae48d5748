// Log archives.
#include "host/answer/answer.h"
#include "host/daemon/daemon.h"
#include "tarn_sysdiag/server/tarnd.h"

namespace tarnd {

namespace {

std::string_view CheckedName(std::string_view name) {
    if (name == "." || name == ".." || name.find('/') != name.npos) {
        throw host::meaning::BadMember(host::methods::ZipLogFile, "name", name, "a file name without a directory");
    }
    return name;
}

} // namespace

} // namespace tarnd

uint32_t ZipLogFile(const Tarn_sys_diag_ZiploginfoInput *request, void *replyCtx) {
    return host::AnswerResult(host::methods::ZipLogFile, request, replyCtx, [&] {
        const std::string leftOut = tarnd::Daemon::Serving().archives.Pack(
            {.source = host::TextOf(request->szLogPath),
             .directory = host::TextOf(request->szZipPath),
             .name = tarnd::CheckedName(host::TextOf(request->szZipName)),
             .stored = request->uiZipOption == host::meaning::archive_compression::kStored},
            [&] { host::CheckWanted(replyCtx); });
        if (!leftOut.empty()) {
            TarnHost_ExplainReply(replyCtx, leftOut.c_str());
        }
    });
}

uint32_t CopyZipLogFile(const Tarn_sys_diag_CopyloginfoInput *request, void *replyCtx) {
    return host::AnswerResult(host::methods::CopyZipLogFile, request, replyCtx, [&] {
        const auto &[target, ifExists, mode, archive, destination] = *request;
        tarnd::Daemon::Serving().archives.Copy(
            {.source = host::TextOf(archive),
             .target = host::TextOf(target),
             .destination = host::TextOf(destination),
             .replace = host::TextOf(ifExists) == host::meaning::if_exists::kReplace.name,
             .move = host::TextOf(mode) == host::meaning::copy_mode::kMove.name},
            [&] { host::CheckWanted(replyCtx); });
    });
}
