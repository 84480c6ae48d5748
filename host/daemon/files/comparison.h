// Files against a baseline, one after the other.
#pragma once

#include <cstdint>
#include <set>
#include <string>

#include "host/daemon/files/survey.h"

namespace tarnd {

// What differs is in the log as soon as it is found.
class Comparison {
public:
    // Without a baseline nothing differs.
    explicit Comparison(FileDigests baseline) : baseline_(std::move(baseline)) {}

    // True when it is a difference that was not known yet.
    bool Add(const SurveyedFile &file);

    bool HasBaseline() const { return !baseline_.empty(); }
    const std::set<std::string> &Changed() const { return changed_; }
    const std::set<std::string> &Added() const { return added_; }

private:
    const FileDigests baseline_;
    std::set<std::string> changed_, added_;
};

} // namespace tarnd
