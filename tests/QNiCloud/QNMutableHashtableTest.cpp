#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <stdexcept>
#include <vector>

#include "QNiCloud/QNMutableHashtable.h"

namespace {

// Buckets, their order, trusted single values and out-of-range answers are driven through the
// cache by its randomized test; the lookups the cache does not use are checked here.
TEST(QNMutableHashtableTest, LookupsAnswerFromTheBucketAndEmptiedBucketsStay) {
    QNMutableHashtable<std::int32_t, std::shared_ptr<int>> table;
    int calls = 0;
    auto answer = [&calls](std::size_t index) {
        return [&calls, index](const auto&) {
            ++calls;
            return index;
        };
    };
    table.setObject(std::make_shared<int>(1), 7);
    table.setObject(std::make_shared<int>(2), 7);
    EXPECT_EQ(table.collisionsCountForKey(7), 2u);
    EXPECT_EQ(**table.objectForKey(7), 1);
    EXPECT_EQ(**table.objectForKey(7, answer(1)), 2);
    EXPECT_THROW(table.objectForKey(7, answer(2)), std::out_of_range);
    table.removeObjectForKey(7, answer(0));
    table.removeObjectForKey(7, answer(5));  // The only value goes without asking.
    EXPECT_EQ(calls, 3);
    // An emptied bucket is no missing one: reading its first value is a range violation.
    EXPECT_EQ(table.collisionsCountForKey(7), 0u);
    EXPECT_THROW(table.objectForKey(7), std::out_of_range);
    EXPECT_EQ(table.objectForKey(8, answer(0)), nullptr);
    EXPECT_EQ(calls, 3);
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
