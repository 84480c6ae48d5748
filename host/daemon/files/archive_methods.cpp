// Log archives.
#include "host/answer/answer.h"
#include "host/daemon/daemon.h"
#include "host/values/daemon.h"
#include "server/tarnd.h"

namespace tarnd {

namespace {

std::string_view CheckedName(std::string_view name) {
    if (name.empty() || name == "." || name == ".." || name.find('/') != name.npos) {
        throw host::BadValue("szZipName", fmt::format("\"{}\"", name), "a file name");
    }
    return name;
}

bool IsStored(uint32_t option) {
    if (option != TARND_ZIP_COMPRESSED && option != TARND_ZIP_STORED) {
        throw host::BadValue("uiZipOption", option, "0 compressed or 1 stored");
    }
    return option == TARND_ZIP_STORED;
}

bool IsSaid(std::string_view value, const char *member, std::string_view word) {
    if (!value.empty() && value != word) {
        throw host::BadValue(member, fmt::format("\"{}\"", value), fmt::format("empty or \"{}\"", word));
    }
    return !value.empty();
}

} // namespace

} // namespace tarnd

uint32_t ZipLogFile(const Tarn_sys_diag_ZiploginfoInput *request, void *replyCtx) {
    return host::AnswerResult(host::methods::ZipLogFile, request, replyCtx, [&] {
        tarnd::Daemon::Serving().archives.Pack({.source = host::TextOf(request->szLogPath),
                                                .directory = host::TextOf(request->szZipPath),
                                                .name = tarnd::CheckedName(host::TextOf(request->szZipName)),
                                                .stored = tarnd::IsStored(request->uiZipOption)},
                                               [&] { host::CheckWanted(replyCtx); });
    });
}

uint32_t CopyZipLogFile(const Tarn_sys_diag_CopyloginfoInput *request, void *replyCtx) {
    return host::AnswerResult(host::methods::CopyZipLogFile, request, replyCtx, [&] {
        const auto said = [&](const auto &member, const char *name, const char *word) {
            return tarnd::IsSaid(host::TextOf(member), name, word);
        };
        tarnd::Daemon::Serving().archives.Copy(
            {.source = host::TextOf(request->szSrcPath),
             .target = host::TextOf(request->szCopyTarget),
             .destination = host::TextOf(request->szDstPath),
             .replace = said(request->szCopyParam1, "szCopyParam1", TARND_COPY_REPLACE),
             .move = said(request->szCopyParam2, "szCopyParam2", TARND_COPY_MOVE)},
            [&] { host::CheckWanted(replyCtx); });
    });
}
