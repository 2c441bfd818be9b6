#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <stdexcept>
#include <vector>

#include "QNiCloud/QNMutableHashtable.h"

namespace {

using Table = QNMutableHashtable<std::int32_t, std::shared_ptr<int>>;
using Bucket = Table::Bucket;

std::vector<int> contents(const Bucket* bucket) {
    std::vector<int> result;
    for (const auto& value : *bucket) {
        result.push_back(*value);
    }
    return result;
}

TEST(QNMutableHashtableTest, BucketsKeepOrderAndOutliveTheirValues) {
    Table table;
    int calls = 0;
    auto answer = [&calls](std::size_t index) {
        return [&calls, index](const Bucket&) {
            ++calls;
            return index;
        };
    };
    const auto shared = std::make_shared<int>(3);
    table.setObject(std::make_shared<int>(1), 7);
    table.setObject(std::make_shared<int>(2), 7);
    table.setObject(shared, -7);
    table.setObject(shared, -7);  // Duplicates are stored again.
    EXPECT_EQ(table.count(), 4u);
    EXPECT_EQ(table.collisionsCountForKey(7), 2u);
    EXPECT_EQ(**table.objectForKey(7), 1);
    EXPECT_EQ(contents(table.allObjectsForKey(7)), (std::vector<int>{1, 2}));
    EXPECT_EQ(**table.objectForKey(7, answer(1)), 2);
    // Out-of-range answers throw and change nothing.
    EXPECT_THROW(table.objectForKey(7, answer(2)), std::out_of_range);
    EXPECT_THROW(table.removeObjectForKey(7, answer(2)), std::out_of_range);
    EXPECT_EQ(table.count(), 4u);

    table.removeObjectForKey(7, answer(0));
    EXPECT_EQ(contents(table.allObjectsForKey(7)), std::vector<int>{2});
    calls = 0;
    table.removeObjectForKey(7, answer(5));  // The only value goes without asking.
    EXPECT_EQ(calls, 0);
    EXPECT_EQ(table.count(), 2u);
    // The emptied bucket stays: an empty array, not nothing; reading its first value is a range
    // violation, also when a handler is asked.
    ASSERT_NE(table.allObjectsForKey(7), nullptr);
    EXPECT_TRUE(table.allObjectsForKey(7)->empty());
    EXPECT_EQ(table.collisionsCountForKey(7), 0u);
    EXPECT_THROW(table.objectForKey(7), std::out_of_range);
    EXPECT_THROW(table.objectForKey(7, answer(0)), std::out_of_range);
    EXPECT_EQ(calls, 1);
    // Missing and empty buckets: nothing happens, nobody is asked.
    table.removeObjectForKey(7, answer(0));
    table.removeObjectForKey(8, answer(0));
    EXPECT_EQ(table.objectForKey(8, answer(0)), nullptr);
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(table.objectForKey(8), nullptr);
    EXPECT_EQ(table.allObjectsForKey(8), nullptr);

    table.removeAllObjects();
    EXPECT_EQ(table.count(), 0u);
    EXPECT_EQ(table.allObjectsForKey(7), nullptr);
    EXPECT_EQ(shared.use_count(), 1);
}

// A value whose destruction looks at the table: it must find the removal already done.
TEST(QNMutableHashtableTest, RemovedValueIsReleasedAfterTheTableIsConsistent) {
    struct Probe {
        std::function<void()> onDestroy;
        ~Probe() {
            if (onDestroy) {
                onDestroy();
            }
        }
    };
    QNMutableHashtable<std::int32_t, std::shared_ptr<Probe>> table;
    std::size_t bucketSeen = 0;
    table.setObject(std::make_shared<Probe>(), 1);
    table.setObject(std::make_shared<Probe>(), 1);
    (*table.allObjectsForKey(1))[1]->onDestroy = [&] {
        bucketSeen = table.allObjectsForKey(1)->size() + table.count();
    };
    table.removeObjectForKey(1, [](const auto&) { return std::size_t{1}; });
    EXPECT_EQ(bucketSeen, 2u);
}

}  // namespace
