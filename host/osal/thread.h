// Threads that are told to stop.
#pragma once

#include <pthread.h>

#include <stop_token>
#include <string>
#include <thread>
#include <utility>

namespace host {

// Runs a function with the stop token of the thread that it returns. To destroy that or assign another to it asks the
// function to stop, and waits until it has.
template <class Function>
std::jthread StartThread(std::string name, Function function) {
    return std::jthread([name = std::move(name), function = std::move(function)](const std::stop_token &stop) {
        pthread_setname_np(pthread_self(), name.c_str());
        function(stop);
    });
}

} // namespace host
