#include "host/web/site.h"

#include <fmt/format.h>
#include <fmt/ranges.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <sstream>

namespace web {

using host::describe::Json;

namespace {

struct Type {
    std::string_view ending, type;
};
constexpr Type kTypes[] = {{".html", "text/html; charset=utf-8"},
                           {".css", "text/css; charset=utf-8"},
                           {".js", "text/javascript; charset=utf-8"},
                           {".svg", "image/svg+xml"}};

// What may be asked, and the task of tarnctl that answers; in braces a number of the address.
struct Question {
    std::string_view name, task;
};
constexpr Question kQuestions[] = {
    {"crashes", "crashes"},
    {"overloads", "overloads"},
    {"overload", "overloads show {number}"},
    {"settings", "settings"},
    {"leaks", "leaks"},
    {"memory", "mem {process}"},
    {"maps", "mem {process} --maps"},
    {"history", "mem {process} --history --last 1h"},
    {"stacks", "stack {process} --all --samples {samples} --every 20ms"},
    {"stacks-of-thread", "stack {process} -t {thread} --samples {samples} --every 20ms"},
};

// What may be done where its group is allowed.
struct Action {
    std::string_view name, group, task;
    bool hasWords; // of the body
};
constexpr Action kActions[] = {
    {"settings", "settings", "settings set", true},
    {"settings-reset", "settings", "settings reset", false},
    {"measure", "commands", "call TarnSetDimOpration operation=start", false},
    {"measure-record", "commands", "measure record", false},
    {"measure-cancel", "commands", "measure cancel", false},
};

Response JsonAnswer(int status, const Json &json) {
    return {.status = status, .type = "application/json", .body = json.dump()};
}

Response ErrorAnswer(int status, const std::string &what) {
    return JsonAnswer(status, {{"error", what}});
}

// By tarnctl's exit code.
Response AnswerOf(const Json &told) {
    constexpr int kUsage = 2, kConnection = 3, kDeadline = 4;
    const int code = told.value("code", 0);
    const int status = code == 0 ? 200 : code == kUsage ? 400 : code == kConnection || code == kDeadline ? 503 : 502;
    return JsonAnswer(status, told);
}

Response FileOf(const std::filesystem::path &path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    if (!in || !(text << in.rdbuf())) {
        throw std::runtime_error(fmt::format("{}: can't be read, expected a file of the page", path.string()));
    }
    const std::string ending = path.extension().string();
    const auto *const type = std::ranges::find(kTypes, ending, &Type::ending);
    return {.type = type == std::end(kTypes) ? "text/plain; charset=utf-8" : std::string(type->type),
            .body = text.str()};
}

// Throws std::invalid_argument.
std::vector<std::string> WordsOf(std::string_view task, const Request &request) {
    std::istringstream in{std::string(task)};
    std::vector<std::string> words;
    for (std::string word; in >> word;) {
        if (word.front() == '{') {
            const std::string name = word.substr(1, word.size() - 2);
            word = request.Query(name);
            if (word.empty() || word.size() > 10 || word.find_first_not_of("0123456789") != word.npos) {
                throw std::invalid_argument(fmt::format("{} is \"{}\", expected a number", name, word));
            }
        }
        words.push_back(word);
    }
    return words;
}

// Of settings, "cpu.begins-at=90%". Throws std::invalid_argument.
std::vector<std::string> WordsIn(const std::string &body) {
    std::vector<std::string> words;
    try {
        const Json stated = host::describe::ParseJson(body);
        for (const Json &word : stated.at("words")) {
            words.push_back(word.get<std::string>());
        }
    } catch (const std::exception &) {
        throw std::invalid_argument("expected {\"words\": [\"NAME=VALUE\"]}");
    }
    for (const std::string &word : words) {
        if (word.empty() || word.front() < 'a' || word.front() > 'z') { // not an option
            throw std::invalid_argument(fmt::format("found \"{}\", expected NAME=VALUE", word));
        }
    }
    return words;
}

std::vector<std::string> Split(const std::string &text) {
    std::istringstream in(text);
    std::vector<std::string> parts;
    for (std::string part; std::getline(in, part, ',');) {
        parts.push_back(part);
    }
    return parts;
}

std::string HostName() {
    char name[256] = {};
    gethostname(name, sizeof name - 1);
    return name;
}

std::string EventText(std::string_view event, std::string_view id, std::string_view data) {
    return fmt::format("event: {}\n{}data: {}\n\n", event, id.empty() ? "" : fmt::format("id: {}\n", id), data);
}

} // namespace

Site::Site(Options options, Access access, Devices &devices)
    : options_(std::move(options)), access_(std::move(access)), devices_(devices) {
    for (const auto &entry : std::filesystem::recursive_directory_iterator(options_.page)) {
        if (entry.is_regular_file()) {
            const auto path = std::filesystem::relative(entry.path(), options_.page);
            files_["/" + path.generic_string()] = FileOf(entry.path());
        }
    }
    if (!files_.contains("/index.html")) {
        throw std::runtime_error(fmt::format("{}: has no index.html, expected the page", options_.page.string()));
    }
    files_["/"] = files_.at("/index.html");
    files_["/chart.js"] = FileOf(options_.chart);
}

std::vector<std::pair<std::string, std::string>> Site::Headers() {
    return {{"Content-Security-Policy",
             "default-src 'none'; script-src 'self'; style-src 'self'; img-src 'self'; connect-src 'self'; "
             "manifest-src 'none'; base-uri 'none'; form-action 'self'; frame-ancestors 'none'"},
            {"X-Content-Type-Options", "nosniff"},
            {"Referrer-Policy", "no-referrer"},
            {"Cross-Origin-Opener-Policy", "same-origin"},
            {"Cross-Origin-Resource-Policy", "same-origin"},
            {"Cache-Control", "no-store"}};
}

Response Site::Answer(const Request &request) {
    if (auto refusal = access_.Refuse(request)) {
        return std::move(*refusal);
    }
    try {
        return Route(request);
    } catch (const std::invalid_argument &error) {
        return ErrorAnswer(400, error.what());
    } catch (const std::exception &error) {
        return ErrorAnswer(502, error.what());
    }
}

Response Site::Route(const Request &request) {
    const std::string &path = request.path;
    if (path.starts_with("/api/do/")) {
        return request.method == "POST" ? Do(request) : ErrorAnswer(405, "expected POST");
    }
    if (request.method != "GET" && request.method != "HEAD") {
        return ErrorAnswer(405, "expected GET");
    }
    if (const auto file = files_.find(path); file != files_.end()) {
        return file->second;
    }
    if (path.starts_with("/api/ask/")) {
        return Ask(request);
    }
    if (path == "/api/about") {
        return About();
    }
    if (path == "/api/live") {
        return Watch(request);
    }
    if (path == "/api/events") {
        return Follow(request);
    }
    if (path == "/api/collect") {
        const auto device = devices_.Find(request.Query("device"));
        if (const Json told = device->tasks.Do({"health"}); told.contains("error")) {
            return AnswerOf(told); // rather than an archive of nothing
        }
        const std::string name = request.Query("device").empty() ? HostName() : request.Query("device");
        return device->tasks.Print(
            {"collect", "-o", "-"},
            {.type = "application/gzip",
             .headers = {{"Content-Disposition", fmt::format("attachment; filename=\"tarn-{}.tar.gz\"", name)}}});
    }
    if (path == "/metrics") {
        return devices_.Find(request.Query("device"))
            ->tasks.Print({"metrics"}, {.type = "text/plain; version=0.0.4; charset=utf-8"});
    }
    return ErrorAnswer(404, fmt::format("{}: nothing is here", path));
}

Response Site::About() const {
    return JsonAnswer(
        200,
        {{"version", TARN_VERSION}, {"host", HostName()}, {"allow", options_.allow}, {"fleet", devices_.IsFleet()}});
}

Response Site::Ask(const Request &request) {
    const std::string name = request.path.substr(std::string_view("/api/ask/").size());
    const auto *const question = std::ranges::find(kQuestions, name, &Question::name);
    if (question == std::end(kQuestions)) {
        return ErrorAnswer(404, fmt::format("{}: no such question", name));
    }
    std::vector<std::string> words = WordsOf(question->task, request);
    words.emplace_back("--json");
    return AnswerOf(devices_.Find(request.Query("device"))->tasks.Ask(words));
}

Response Site::Do(const Request &request) {
    const std::string name = request.path.substr(std::string_view("/api/do/").size());
    const auto *const action = std::ranges::find(kActions, name, &Action::name);
    if (action == std::end(kActions)) {
        return ErrorAnswer(404, fmt::format("{}: no such action", name));
    }
    if (!options_.allow.contains(std::string(action->group))) {
        return ErrorAnswer(403, fmt::format("not from here: tarn-web was started without --allow {}", action->group));
    }
    std::vector<std::string> words = WordsOf(action->task, request);
    if (action->hasWords) {
        std::ranges::move(WordsIn(request.body), std::back_inserter(words));
    }
    return AnswerOf(devices_.Find(request.Query("device"))->tasks.Do(words));
}

Response Site::Stream(std::function<void(const Write &)> stream) {
    if (viewers_.fetch_add(1) >= options_.viewers) {
        --viewers_;
        return ErrorAnswer(503, fmt::format("{} look already, that is the most", options_.viewers));
    }
    const std::shared_ptr<void> viewer(nullptr, [this](void *) { --viewers_; });
    return {.type = "text/event-stream",
            .stream = [viewer, stream = std::move(stream)](const Write &write) { stream(write); }};
}

// What comes, and now and then a sign that this still lives, by which it is noticed who has gone.
template <class Next>
void Site::Repeat(const Write &write, Next next) const {
    constexpr std::chrono::seconds kQuiet{10};
    auto said = std::chrono::steady_clock::now();
    bool taken = write("retry: 1000\n\n");
    while (taken && !stopping_) {
        std::string text = next();
        const auto now = std::chrono::steady_clock::now();
        if (text.empty() && now - said > kQuiet) {
            text = ":\n\n";
        }
        if (!text.empty()) {
            said = now;
            taken = write(text);
        }
    }
}

constexpr std::chrono::milliseconds kLook{500}; // whether this is to end

Response Site::Watch(const Request &request) {
    const std::string name = request.Query("device");
    const auto device = devices_.IsFleet() && name.empty() ? nullptr : devices_.Find(name);
    Live &live = device == nullptr ? devices_.All() : device->live;
    const auto view = std::make_shared<Live::View>(live, Split(request.Query("topics")));
    return Stream([this, device, view](const Write &write) {
        Repeat(write, [&] {
            std::string text;
            for (const auto &[name, answer] : view->Next(kLook)) {
                text += EventText(name, "", *answer);
            }
            return text;
        });
    });
}

Response Site::Follow(const Request &request) {
    const auto device = devices_.Find(request.Query("device"));
    return Stream([this, device, place = Events::Place::Of(request.lastEventId)](const Write &write) mutable {
        std::string problem;
        Repeat(write, [&] {
            const Events::News news = device->events.Next(place, problem, kLook);
            std::string text;
            if (news.isNew) {
                text += EventText("begin", news.place.Text(), "{}");
            }
            if (!news.events.empty()) {
                text += EventText("events", news.place.Text(), fmt::format("[{}]", fmt::join(news.events, ",")));
            }
            if (news.problem != std::exchange(problem, news.problem)) {
                text += EventText("problem", "", Json{{"error", news.problem}}.dump());
            }
            place = news.place;
            return text;
        });
    });
}

} // namespace web
