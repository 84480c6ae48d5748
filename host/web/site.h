// What is at which address.
//
//   /                    the page, and its files
//   /api/about           what this is, and what it allows
//   /api/live?topics=    answers of the daemon as they come: server-sent events named as the topics
//   /api/events          the journal: server-sent events
//   /api/ask/NAME        rows of what is asked now and then
//   /api/do/NAME         POST: what changes something, {"words": [...]}
//   /api/collect         everything for somebody far away, as an archive
//   /metrics             figures for Prometheus
//
// With a fleet the topic "devices" has them all, and ?device= says whose the others are.
#pragma once

#include <atomic>
#include <filesystem>
#include <map>
#include <memory>
#include <set>
#include <string>

#include "host/web/access.h"
#include "host/web/devices.h"
#include "host/web/http.h"

namespace web {

class Site {
public:
    struct Options {
        std::filesystem::path page;       // directory of its files
        std::filesystem::path chart;      // file of the plots' library
        std::set<std::string> allow = {}; // groups of what changes something: "settings", "commands"
        size_t viewers = 128;             // streams at once; more are refused
    };
    // Throws std::runtime_error for a page that can't be read.
    Site(Options options, Access access, Devices &devices);

    Response Answer(const Request &request);

    // Streams end.
    void Stop() { stopping_ = true; }

    // What every answer has.
    static std::vector<std::pair<std::string, std::string>> Headers();

private:
    Response Route(const Request &request);
    Response About() const;
    Response Watch(const Request &request);
    Response Follow(const Request &request);
    Response Ask(const Request &request);
    Response Do(const Request &request);
    Response Stream(std::function<void(const Write &)> stream);
    template <class Next>
    void Repeat(const Write &write, Next next) const;

    const Options options_;
    const Access access_;
    Devices &devices_;
    std::map<std::string, Response> files_; // by path
    std::atomic<bool> stopping_ = false;
    std::atomic<size_t> viewers_ = 0;
};

} // namespace web
