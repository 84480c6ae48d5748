#include "tests/library/platform.h"

#include <algorithm>
#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "tarn_sysdiag/platform/osal.h"
#include "tarn_sysdiag/platform/securec.h"
#include "tarn_sysdiag/server/tarnd.h"
#include "tarn_sysdiag/server/tarnd_agent.h"

Platform &Platform::Get() {
    static thread_local Platform platform;
    return platform;
}

Script &Platform::Start() {
    *this = Platform();
    return script;
}

std::string Platform::Show(const Argument &argument) const {
    if (!argument.isPointer) {
        return argument.text;
    }
    const auto known = names_.find(argument.pointer);
    return argument.pointer == nullptr ? "null" : known == names_.end() ? "unknown" : known->second;
}

std::vector<std::string> Platform::Calls() const {
    std::vector<std::string> lines;
    for (const Call &call : calls) {
        std::string line = call.function + "(";
        for (const auto &argument : call.arguments) {
            line += (line.back() == '(' ? "" : ", ") + Show(argument);
        }
        lines.push_back(line + ")");
    }
    return lines;
}

size_t Platform::CountCalls(const std::string &function) const {
    return static_cast<size_t>(
        std::count_if(calls.begin(), calls.end(), [&](const Call &call) { return call.function == function; }));
}

void Platform::Record(std::string function, std::vector<Argument> arguments) {
    if (!quiet_) {
        calls.push_back({std::move(function), std::move(arguments)});
    }
}

void Platform::RecordMethod(const IdlMethodName *name, const IdlCodecTable *table) {
    service = name->pcService;
    method = name->pcMethod;
    codec = *table;
}

void *Platform::NewMessage(uint32_t size) {
    Message message{std::make_unique<uint8_t[]>(size), size};
    void *const bytes = message.bytes.get();
    memset(bytes, 0xEE, size); // new memory is not zero
    messages_[bytes] = std::move(message);
    Name(bytes, "message " + std::to_string(messages_.size()));
    return bytes;
}

void Platform::DeleteMessage(const void *message) {
    if (messages_.count(message) == 0) {
        misuse.push_back("release of what is no message");
    } else {
        messages_[message] = {}; // its name stays, and its number
    }
}

std::vector<uint8_t> Platform::ContentOf(const void *message) const {
    const auto known = messages_.find(message);
    if (known == messages_.end() || known->second.bytes == nullptr) {
        return {};
    }
    return {known->second.bytes.get(), known->second.bytes.get() + known->second.size};
}

// The runtime keeps its copy of the record in a message of its own.
void *Platform::Unpack(void *buffer, const IdlServerCodecTable *table) {
    if (names_.count(buffer) == 0) {
        Name(buffer, "buffer");
    }
    if (!script.decodes) {
        return nullptr;
    }
    quiet_ = true;
    void *const record =
        table->stCodec.pfnUnpack(script.message.data(), static_cast<uint32_t>(script.message.size()), buffer);
    quiet_ = false;
    if (record != buffer && record != nullptr) {
        misuse.push_back("the decoder returned another record");
    }
    if (record == nullptr || !script.copiesRecord) {
        return record;
    }
    void *const copy = NewMessage(static_cast<uint32_t>(script.recordSize));
    memcpy(copy, buffer, script.recordSize);
    Name(copy, "record");
    return copy;
}

void *Platform::Alloc(uint32_t size, const char *tag) {
    void *const block = malloc(size);
    memset(block, 0xA5, size);
    live_[block] = tag;
    return block;
}

void Platform::Free(void *block, const char *tag) {
    Record("XRT_OsalMemFree", {block == nullptr ? "null" : "block", tag});
    if (block != nullptr && live_.erase(block) == 0) {
        misuse.push_back(std::string("release of a block that is not live, by ") + tag);
        return;
    }
    free(block);
}

namespace {
uint32_t Handle(const char *method, const void *record, std::vector<Argument> arguments) {
    Platform &platform = Platform::Get();
    arguments.insert(arguments.begin(), record);
    platform.Record(method, std::move(arguments));
    if (platform.script.handler) {
        platform.script.handler(record);
    }
    return platform.script.handlerResult;
}

std::atomic<unsigned> useFlagQueries;
} // namespace

unsigned UseFlagQueries() {
    return useFlagQueries.load(std::memory_order_relaxed);
}

extern "C" {

uint32_t g_uiMoraModuleId = kMoraModuleId;

// The runtime, client side.

void *RPC_GetRpcInvoke(IdlServerAddr *address, void *invokeCtx) {
    static const char invoker[] = "invoker";
    Platform &platform = Platform::Get();
    platform.Name(address, address->pcService);
    platform.Name(invoker, "invoker");
    platform.Record("RPC_GetRpcInvoke", {address, invokeCtx});
    return platform.script.knowsService ? const_cast<char *>(invoker) : nullptr;
}

void *RPC_IdlMsgCreate(uint32_t size, uint32_t moduleId, const char *tag) {
    Platform &platform = Platform::Get();
    platform.Record("RPC_IdlMsgCreate", {uint64_t{size}, uint64_t{moduleId}, tag});
    return platform.created++ == platform.script.failingCreate ? nullptr : platform.NewMessage(size);
}

void RPC_IdlMsgDestroy(void *message, uint32_t moduleId, const char *tag) {
    Platform::Get().Record("RPC_IdlMsgDestroy", {message, uint64_t{moduleId}, tag});
    Platform::Get().DeleteMessage(message);
}

void RPC_IdlMsgSyncCall(IdlCallResult *result, void *invoker, const void *request, void *response,
                        const IdlMethodName *name, const IdlCodecTable *table) {
    Platform &platform = Platform::Get();
    platform.Record("RPC_IdlMsgSyncCall", {invoker, request, response});
    platform.RecordMethod(name, table);
    platform.request = platform.ContentOf(request);
    *result = platform.script.callResult;
}

uint32_t RPC_IdlMsgAsyncCall(const IdlAsyncCtx *context) {
    Platform &platform = Platform::Get();
    platform.Record("RPC_IdlMsgAsyncCall", {context->pInvoker, context->pReqMsg, context->pRespMsg});
    platform.RecordMethod(context->pstMethod, context->pstCodec);
    platform.context = *context;
    platform.request = platform.ContentOf(context->pReqMsg);
    platform.response = platform.ContentOf(context->pRespMsg);
    return platform.script.asyncResult;
}

uint32_t RPC_IdlMsgOnewayCall(void *invoker, const void *request, const IdlMethodName *name,
                              const IdlCodecTable *table) {
    Platform &platform = Platform::Get();
    platform.Record("RPC_IdlMsgOnewayCall", {invoker, request});
    platform.RecordMethod(name, table);
    return platform.script.onewayResult;
}

// The runtime, server side.

void *RPC_IdlReqVeltoMsgUnPack(void *request, void *buffer, const IdlServerCodecTable *table) {
    Platform::Get().Record("RPC_IdlReqVeltoMsgUnPack", {request, buffer, table});
    return Platform::Get().Unpack(buffer, table);
}

IdlServerCodecTable *RPC_GetUsrFuncLib(void *record) {
    Platform &platform = Platform::Get();
    platform.Record("RPC_GetUsrFuncLib", {record});
    platform.Name(&platform.kept, "kept");
    return &platform.kept;
}

void *RPC_IdlMsgNew(uint32_t size, uint32_t zero) {
    Platform &platform = Platform::Get();
    platform.Record("RPC_IdlMsgNew", {uint64_t{size}, uint64_t{zero}});
    return platform.script.failsNew ? nullptr : platform.NewMessage(size);
}

void RPC_IdlMsgFree(void *record, uint32_t zero) {
    Platform::Get().Record("RPC_IdlMsgFree", {record, uint64_t{zero}});
    Platform::Get().DeleteMessage(record);
}

// The bounds-checked functions.

int memcpy_s(void *to, size_t room, const void *from, size_t count) {
    Platform &platform = Platform::Get();
    platform.Record("memcpy_s", {to, uint64_t{room}, from, uint64_t{count}});
    if (to == nullptr || from == nullptr || count > room) {
        platform.misuse.push_back("copy of " + std::to_string(count) + " bytes into " + std::to_string(room));
        return 34;
    }
    if (to == &platform.kept && platform.script.failsKeeping) {
        return 22;
    }
    platform.copied = to == &platform.kept ? count : platform.copied;
    memcpy(to, from, count);
    return 0;
}

int memset_s(void *to, size_t room, int value, size_t count) {
    Platform &platform = Platform::Get();
    platform.Record("memset_s", {to, uint64_t{room}, static_cast<uint64_t>(value), uint64_t{count}});
    if (to == nullptr || count > room) {
        platform.misuse.push_back("filling of " + std::to_string(count) + " bytes in " + std::to_string(room));
        return 34;
    }
    memset(to, value, count);
    return 0;
}

// The OS layer.

void XRT_OsalLogWrite(const XrtLogModule *module, uint32_t level, uint32_t code, const char *file, uint32_t line,
                      const char *function, const char *format, ...) {
    Platform &platform = Platform::Get();
    char text[256];
    va_list list;
    va_start(list, format);
    vsnprintf(text, sizeof text, format, list);
    va_end(list);
    platform.log.push_back({function, code, text});
    if (strcmp(module->pcComponent, "VELTO") != 0 || strcmp(module->pcModule, "VELTO_HERON_SERIAL") != 0 ||
        module->uiWord != 0x6200 || level != 2 || strcmp(file, "") != 0 || line == 0) {
        platform.misuse.push_back(std::string("log record of another module, level, file or line, by ") + function);
    }
}

uint32_t XRT_OsalMemUseFlagGet(uint32_t moduleId) {
    useFlagQueries.fetch_add(1, std::memory_order_relaxed);
    return moduleId == 12 ? 1 : 0;
}

void *XRT_OsalMemCacheAlloc(uint32_t size, uint32_t moduleId, const char *tag) {
    if (moduleId != 12) {
        Platform::Get().misuse.push_back(std::string("allocation for another module, by ") + tag);
    }
    return Platform::Get().Alloc(size, tag);
}

void XRT_OsalMemFree(void *block, uint32_t moduleId, const char *tag) {
    if (moduleId != 12) {
        Platform::Get().misuse.push_back(std::string("release for another module, by ") + tag);
    }
    Platform::Get().Free(block, tag);
}

// The daemon.

#define DEFINE_HANDLER(method, request, response)                                                                      \
    uint32_t method(const Tarn_sys_diag_##request *record, void *replyCtx) {                                           \
        return Handle(#method, record, {replyCtx});                                                                    \
    }                                                                                                                  \
    void method##_free(Tarn_sys_diag_##response *record) {                                                             \
        Platform::Get().Record(#method "_free", {record});                                                             \
    }
#define DEFINE_HANDLER_NO_REPLY(method, request)                                                                       \
    uint32_t method(const Tarn_sys_diag_##request *record) {                                                           \
        return Handle(#method, record, {});                                                                            \
    }

#define TARN_METHOD DEFINE_HANDLER
#define TARN_METHOD_NO_REPLY DEFINE_HANDLER_NO_REPLY
#include "tarn_sysdiag/server/tarnd_methods.h"

#define TARN_METHOD DEFINE_HANDLER
#define TARN_METHOD_NO_REPLY DEFINE_HANDLER_NO_REPLY
#include "tarn_sysdiag/server/tarnd_agent_methods.h"
}
