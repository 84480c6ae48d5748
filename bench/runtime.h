// A runtime that does nothing, for the library's calls to be measured around.
#pragma once

namespace bench {

// What it hands out as invoker, message and reply context.
void *RuntimeObject();

} // namespace bench
