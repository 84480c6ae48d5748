// The library's methods as data, made from the lists, for tests that loop over them.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tarn_sysdiag/platform/rpc.h"

// A method of a remote service, and its exported functions. Types go without their prefix.
struct ProxyMethod {
    std::string service, name, request, response; // no response: empty
    IdlServerAddr *address;
    void (*setIdl)(IdlCodecTable *codec);
    IdlCallResult (*call)(const void *in, void *out, void *ctx); // `out` only where there is a response
    uint32_t (*async)(const void *in, IdlAsyncCallback callback, void *user, void *ctx);
    uint32_t (*oneway)(const void *in, void *ctx); // null where there is a response

    bool Replies() const { return !response.empty(); }
    std::string Function() const { return service + "_" + name; }
};

// A method of a served service.
struct ServedMethod {
    std::string service;
    uint32_t index;
    std::string name, request, response; // no response: empty
    IdlWrapperFn wrapper;
    IdlUsrFreeFn usrFree; // null where there is no response

    bool Replies() const { return !response.empty(); }
};

const std::vector<ProxyMethod> &ProxyMethods();
const std::vector<ServedMethod> &ServedMethods();

const ProxyMethod &FindProxy(const std::string &name);
const ServedMethod &FindServed(const std::string &name);
