#include "host/web/live.h"

#include <gtest/gtest.h>

#include <set>

#include "host/web/events.h"
#include "host/web/tasks.h"

namespace {

using host::describe::Json;
using std::chrono::milliseconds;
using std::chrono::seconds;
using web::Events;
using web::Live;
using web::Tasks;

// Topics that answer with how often they have been asked.
class WebLiveTest : public testing::Test {
protected:
    std::optional<Live::Topic> TopicOf(const std::string &name) {
        if (name == "fails") {
            return Live::Topic{[]() -> Json { throw std::runtime_error("no such daemon"); }, milliseconds(1)};
        }
        const auto asked = asked_.find(name);
        return asked == asked_.end()
                   ? std::nullopt
                   : std::optional(Live::Topic{[asked] { return Json(++asked->second); }, milliseconds(1)});
    }

    std::map<std::string, std::atomic<int>> asked_ = [] {
        std::map<std::string, std::atomic<int>> asked;
        asked["cpu"], asked["memory"];
        return asked;
    }();
    Live live_{[this](const std::string &name) { return TopicOf(name); }};
};

std::set<std::string> NamesOf(const std::vector<Live::View::Answer> &answers) {
    std::set<std::string> names;
    for (const Live::View::Answer &answer : answers) {
        names.insert(answer.name);
    }
    return names;
}

TEST_F(WebLiveTest, EachTopicHasItsTurn) {
    Live::View view(live_, {"cpu", "memory"});
    std::set<std::string> seen;
    while (seen.size() < 2) {
        const auto answers = view.Next(seconds(60));
        ASSERT_FALSE(answers.empty());
        seen.merge(NamesOf(answers));
    }
}

TEST_F(WebLiveTest, TwoViewersGetTheSameAnswers) {
    Live::View one(live_, {"cpu"}), other(live_, {"cpu"});
    const auto first = one.Next(seconds(60)), second = other.Next(seconds(60));
    ASSERT_EQ(first.size(), 1u);
    ASSERT_EQ(second.size(), 1u);
    // Either the same one, or a later one: each is asked once for both.
    EXPECT_LE(std::stoi(*first[0].text), std::stoi(*second[0].text));
}

TEST_F(WebLiveTest, NothingIsAskedOnceNobodyLooks) {
    {
        Live::View view(live_, {"cpu"});
        ASSERT_FALSE(view.Next(seconds(60)).empty());
    }
    Live::View other(live_, {"memory"}); // when that is answered, what was under way has ended
    ASSERT_FALSE(other.Next(seconds(60)).empty());
    const int asked = asked_["cpu"];
    ASSERT_FALSE(other.Next(seconds(60)).empty());
    EXPECT_EQ(asked_["cpu"], asked);
}

TEST_F(WebLiveTest, FailuresAreAnswers) {
    Live::View view(live_, {"fails"});
    const auto answers = view.Next(seconds(60));
    ASSERT_EQ(answers.size(), 1u);
    EXPECT_EQ(*answers[0].text, R"({"error":"no such daemon"})");
}

TEST_F(WebLiveTest, RefusesWhatThereIsNot) {
    EXPECT_THROW(Live::View(live_, {"cpu", "nothing"}), std::invalid_argument);
    Live::View view(live_, {"cpu"}); // and the one before has left nothing behind
    EXPECT_FALSE(view.Next(seconds(60)).empty());
}

// A program that says something else each time.
TEST(WebTasksTest, AnAnswerHoldsUntilSomethingHappens) {
    Tasks tasks({"/bin/sh", "-c", R"(echo "\"$(cat /proc/sys/kernel/random/uuid)\"")"});
    Json before = tasks.Ask({"crashes"});
    ASSERT_EQ(before["rows"].size(), 1u) << before;
    tasks.Forget();
    Json after = tasks.Ask({"crashes"});
    EXPECT_NE(before, after);
    before = after;
    tasks.Do({"settings"});
    EXPECT_NE(before, tasks.Ask({"crashes"}));
}

TEST(WebEventsTest, TellsOfNewsBeforeViewersGetThem) {
    std::atomic<int> told = 0;
    Events events({"/bin/sh", "-c", "echo one; sleep 600"}, [&] { ++told; });
    while (events.Next({}, "", seconds(60)).events.empty()) {
    }
    EXPECT_GE(told, 1);
}

TEST(WebEventsTest, PlacesTravelAsText) {
    const Events::Place place = Events::Place::Of("17.4");
    EXPECT_EQ(place.run, 17u);
    EXPECT_EQ(place.next, 4u);
    EXPECT_EQ(place.Text(), "17.4");
    for (const char *text : {"", ".", "x.y", "99999999999999999999999"}) {
        EXPECT_EQ(Events::Place::Of(text).next, 0u) << text;
    }
}

TEST(WebEventsTest, ViewersGetWhatIsBehindTheirPlace) {
    Events events({"/bin/sh", "-c", "echo one; echo two; sleep 600"});
    Events::Place place;
    std::vector<std::string> got;
    while (got.size() < 2) {
        const Events::News news = events.Next(place, "", seconds(60));
        ASSERT_EQ(news.problem, "");
        if (news.isNew) {
            got.clear();
        }
        got.insert(got.end(), news.events.begin(), news.events.end());
        place = news.place;
    }
    EXPECT_EQ(got, (std::vector<std::string>{"one", "two"}));
    EXPECT_TRUE(events.Next(place, "", milliseconds(0)).events.empty());
    const Events::News again = events.Next({place.run, 1}, "", milliseconds(0));
    EXPECT_FALSE(again.isNew);
    EXPECT_EQ(again.events, std::vector<std::string>{"two"});
}

TEST(WebEventsTest, TellsWhyTheyAreNotFollowed) {
    Events events({"/bin/sh", "-c", "echo 'sh: no daemon' >&2; exit 3"});
    Events::News news;
    while (news.problem.empty()) {
        news = events.Next(news.place, "", seconds(60));
    }
    EXPECT_EQ(news.problem, "no daemon");
    Events missing({"/nothing/at/all"});
    while (news.problem.find("/nothing") == std::string::npos) {
        news = missing.Next(news.place, "", seconds(60));
    }
}

} // namespace
