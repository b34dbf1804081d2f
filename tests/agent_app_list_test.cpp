// The list of apps the service announced: its key order, replacement of equal keys, lookups,
// removals that keep the rest reachable, and listing.
#include "AgentAppList.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

using PELK::InteractionApp;
using PELK::Agent::AgentAppList;

namespace {

InteractionApp app(int type, int appID, const char* ip, const char* name = "app") {
    InteractionApp record;
    record.nType = type;
    record.nAppID = appID;
    record.SetIPv4(ip);
    record.SetAppName(name);
    return record;
}

// The names of apps after a listing into `apps`, which appends to what it held.
std::vector<std::string> listed(AgentAppList& list, std::vector<InteractionApp> apps = {}) {
    list.getAppList(apps);
    std::vector<std::string> names;
    for (const InteractionApp& record : apps) names.push_back(record.szAppName);
    return names;
}

TEST(AgentAppListTest, KeysEachLessThanTheOtherBehaveAsTheOrOrderingMakesThem) {
    // Each key is less than the other: the first by its type, the second by its app ID.
    const InteractionApp first = app(1, 5, "10.0.0.2", "first"), second = app(2, 3, "10.0.0.1", "second");
    AgentAppList list;
    list.insert(first);
    list.insert(second);
    // The second goes left of the first, so it is listed first, and a lookup for it turns right
    // at the root and misses: a lexicographic order would list first, second and find both.
    EXPECT_EQ((std::vector<std::string>{"second", "first"}), listed(list));
    EXPECT_EQ(1, list.exist(first));
    EXPECT_EQ(0, list.exist(second));
}

// Keys are the type, the app ID and the address cut to fifteen characters; name and MAC are not.
TEST(AgentAppListTest, EqualKeysReplaceTheEntry) {
    AgentAppList list;
    InteractionApp before = app(4, 9, "192.168.1.5", "before"), after = app(4, 9, "192.168.1.5", "after");
    before.SetMacAddress("aa:bb:cc:dd:ee:ff");
    list.insert(before);
    list.insert(after);
    EXPECT_EQ(1u, list.size());
    InteractionApp found = app(0, 0, "0.0.0.0", "untouched");
    EXPECT_EQ(0, list.get("192.168.1.5", 4, 10, &found));
    EXPECT_STREQ("untouched", found.szAppName);
    ASSERT_EQ(1, list.get("192.168.1.5", 4, 9, &found));
    EXPECT_EQ((std::vector<std::string>{"after", "", "9"}),
              (std::vector<std::string>{found.szAppName, found.szMacAddress, std::to_string(found.nAppID)}));

    // Records whose address fields hold 16 characters without a terminator.
    memcpy(before.szIPv4, "123.123.123.1239", 16);
    memcpy(after.szIPv4, "123.123.123.123X", 16);
    list.clear();
    list.insert(before);
    EXPECT_EQ(1, list.exist(after));
    EXPECT_EQ(1, list.exist("123.123.123.123-and-more", 4, 9));
    list.insert(after);
    EXPECT_EQ(1u, list.size());
}

TEST(AgentAppListTest, ListingAppendsInKeyOrderAndRemovalKeepsTheRestReachable) {
    AgentAppList list;
    for (int id : {50, 20, 70, 10, 30, 60, 80}) list.insert(app(1, id, "10.0.0.1", std::to_string(id).c_str()));
    list.remove("10.0.0.1", 1, 50);  // the root, with two children
    list.remove(app(1, 10, "10.0.0.1"));
    list.remove("10.0.0.1", 1, 99);  // not stored: nothing happens

    EXPECT_EQ((std::vector<std::string>{"", "", "20", "30", "60", "70", "80"}),
              listed(list, std::vector<InteractionApp>(2)));
    for (int id : {20, 30, 60, 70, 80}) EXPECT_EQ(1, list.exist("10.0.0.1", 1, id)) << id;
    list.clear();
    EXPECT_TRUE(list.empty());
    EXPECT_TRUE(listed(list).empty());
}

}  // namespace
