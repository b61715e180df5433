// How the web console's events reach its pages: in order, each once, the newest few kept.
#include <gtest/gtest.h>

#include <regex>
#include <sstream>

#include "EventHub.h"

namespace velnor::host {
namespace {

using std::chrono::milliseconds;

// The data lines of the events in a feed's text, one word each: "tick 3" for the event of kind
// tick whose data is 3.
std::vector<std::string> eventsIn(const std::string& text) {
    static const std::regex kEvent("event: (\\w+)\ndata: (\\w+)\n\n");
    std::vector<std::string> events;
    for (auto it = std::sregex_iterator(text.begin(), text.end(), kEvent);
         it != std::sregex_iterator(); ++it) {
        events.push_back((*it)[1].str() + " " + (*it)[2].str());
    }
    return events;
}

void publishNumbered(EventHub& hub, int from, int to) {
    for (int n = from; n <= to; ++n) {
        hub.publish("tick", PlistValue::integer(n));
    }
}

TEST(EventHub, EachPageGetsEveryEventAfterItsCursorOnceAndInOrder) {
    EventHub hub;
    std::uint64_t early = 0;
    EXPECT_EQ(hub.waitAfter(&early, milliseconds(0)), "") << "nothing published yet";
    EXPECT_EQ(early, 0u);

    hub.publish("state", PlistValue::integer(1));
    std::uint64_t late = hub.latest();  // a page that opens now: only what follows
    hub.publish("log", PlistValue::integer(2));
    hub.publish("state", PlistValue::integer(3));

    EXPECT_EQ(eventsIn(hub.waitAfter(&early, milliseconds(0))),
              (std::vector<std::string>{"state 1", "log 2", "state 3"}));
    EXPECT_EQ(early, 3u);
    EXPECT_EQ(eventsIn(hub.waitAfter(&late, milliseconds(0))),
              (std::vector<std::string>{"log 2", "state 3"}));
    EXPECT_EQ(hub.waitAfter(&early, milliseconds(0)), "") << "nothing twice";

    // A cursor from before the daemon restarted, beyond anything published, catches up.
    std::uint64_t ahead = 1000;
    EXPECT_EQ(hub.waitAfter(&ahead, milliseconds(0)), "");
    EXPECT_EQ(ahead, 3u);
}

TEST(EventHub, KeepsOnlyTheNewestEventsForAPageThatFellBehind) {
    EventHub hub;
    const int published = static_cast<int>(kKeptEvents) + 44;
    publishNumbered(hub, 1, published);
    std::uint64_t cursor = 0;
    const std::vector<std::string> events = eventsIn(hub.waitAfter(&cursor, milliseconds(0)));
    ASSERT_EQ(events.size(), kKeptEvents);
    EXPECT_EQ(events.front(), "tick 45");
    EXPECT_EQ(events.back(), "tick " + std::to_string(published));
    EXPECT_EQ(cursor, static_cast<std::uint64_t>(published));
}

TEST(EventHub, AClosedHubAnswersAtOnceAndHandsOutNothingMore) {
    EventHub hub;
    publishNumbered(hub, 1, 2);
    hub.close();
    EXPECT_TRUE(hub.closed());
    std::uint64_t cursor = 0;
    // An hour's wait would hang the test if closing did not end it.
    EXPECT_EQ(hub.waitAfter(&cursor, std::chrono::hours(1)), "");
}

TEST(EventHub, AnEventsTextIsOneDataLinePerLineOfItsJson) {
    // The data's own line ends stay inside its JSON string: no data can end an event early or
    // make up one of its own kind.
    const std::pair<PlistValue, std::string> cases[] = {
        {PlistValue::integer(7), "event: k\ndata: 7\n\n"},
        {PlistValue("a\n\nevent: forged\ndata: x"),
         "event: k\ndata: \"a\\n\\nevent: forged\\ndata: x\"\n\n"},
        {PlistValue(""), "event: k\ndata: \"\"\n\n"},
    };
    for (const auto& [data, text] : cases) {
        EXPECT_EQ(eventText("k", data), text);
    }
    // However many lines a dictionary's JSON takes, each is a data line of the one event.
    const std::string dictionary =
        eventText("k", PlistDictionary{{"a", PlistValue::integer(1)}, {"b", "c\nd"}});
    ASSERT_TRUE(dictionary.starts_with("event: k\n") && dictionary.ends_with("\n\n")) << dictionary;
    std::istringstream lines(dictionary.substr(9, dictionary.size() - 10));
    for (std::string line; std::getline(lines, line);) {
        EXPECT_TRUE(line.starts_with("data: ")) << dictionary;
    }
}

}  // namespace
}  // namespace velnor::host
