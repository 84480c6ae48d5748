// Who may look: whoever knows the token, from a page of this server only.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "host/web/http.h"

namespace web {

// A token of 128 random bits: from the file if it has one, else a new one, which is written to it with access for its
// owner alone. Without a file, a new one. Throws std::runtime_error.
std::string TokenIn(const std::string &file);

class Access {
public:
    // `hosts` are what a browser may call this server, "localhost:8010".
    Access(std::string token, std::vector<std::string> hosts, bool tls);

    // Nothing where the request may go on. The first visit, to "/?token=...", is answered with a cookie; programs send
    // the token as a bearer's.
    std::optional<Response> Refuse(const Request &request) const;

private:
    bool IsOwnOrigin(const Request &request) const;
    bool HasCookie(const Request &request) const;

    const std::string token_;
    const std::string cookie_; // name=value
    const std::vector<std::string> hosts_;
    const bool tls_;
};

} // namespace web
