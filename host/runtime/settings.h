// Tells a server that a method of the group `settings` has done what it was asked to.
#pragma once

#include <functional>

#include "host/meaning/meaning.h"
#include "host/runtime/policy.h"

namespace host {

// Who asked for it, and with which request.
using OnSetting = std::function<void(const Peer &peer, const meaning::Method &method, const void *request)>;

// To the server whose method runs on this thread, if any does.
void NoteSetting(const meaning::Method &method, const void *request);

} // namespace host
