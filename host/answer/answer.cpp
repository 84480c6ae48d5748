#include "host/answer/answer.h"

#include <unistd.h>

#include "host/osal/attempt.h"
#include "host/procfs/procfs.h"
#include "host/runtime/settings.h"

namespace host {

namespace {

// Of the method that runs on this thread. One that no peer called is the program's own doing.
TarnHost_Peer Caller() {
    TarnHost_Peer peer{static_cast<uint32_t>(getpid()), geteuid(), getegid(), 1};
    TarnHost_PeerOf(nullptr, &peer);
    return peer;
}

bool IsShown(uint32_t pid, const TarnHost_Peer &to) {
    return to.ucMemoryOfOthers != 0 || procfs::Procfs().IsShownTo(pid, to.uiUid, to.uiGid);
}

// The process that a request looks into: an agent's own, or the one that it names; 0 for all, or the daemon.
uint32_t TargetOf(const meaning::Method &method, const void *request) {
    if (method.service == std::string_view("TarnSysdiagAgent")) {
        return static_cast<uint32_t>(getpid());
    }
    const uint32_t *const process = meaning::ProcessIn(*method.request, request);
    return process == nullptr ? 0 : *process;
}

} // namespace

bool MayLookInto(uint32_t pid) {
    return IsShown(pid, Caller());
}

void CheckRequest(const meaning::Method &method, const void *request) {
    meaning::Check(*method.request, request);
    if (method.group != Group::kMemory) {
        return;
    }
    const uint32_t target = TargetOf(method, request);
    const TarnHost_Peer caller = Caller();
    if (!IsShown(target, caller)) {
        Fail(EACCES,
             fmt::format("{} not user {}'s, and the policy's memory-of-others does not name that user",
                         target == 0 ? "what is asked for is" : fmt::format("process {} is", target), caller.uiUid));
    }
}

void NoteDone(const meaning::Method &method, const void *request) {
    if (method.group == Group::kSettings) {
        NoteSetting(method, request);
    }
}

uint32_t StatusOfException(const char *method) {
    const Failure failure = LogFailure(method);
    if (!failure.reason.empty()) {
        TarnHost_Explain(failure.reason.c_str());
    }
    return failure.error;
}

} // namespace host
