// The pipeline between the reading thread, the workers and the writer: every
// batch comes out once, in submission order, whatever the workers do; the
// submitter is held back when the writer falls behind; a stop releases
// everyone.

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <random>
#include <thread>
#include <vector>

#include "apps/ordered_pipeline.h"

namespace {

struct Item {
    uint64_t sequence = 0;
    int value = 0;
    int processed_by = -1;
};

using Pipeline = Vorpa::OrderedPipeline<Item>;

std::vector<std::thread> StartWorkers(Pipeline& pipeline, int count, unsigned seed) {
    std::vector<std::thread> workers;
    for (int w = 0; w < count; ++w) {
        workers.emplace_back([&pipeline, w, seed] {
            std::mt19937 rng(seed + w);
            Item item;
            while (pipeline.Take(item)) {
                // Uneven work, so that later batches often finish first.
                std::this_thread::sleep_for(std::chrono::microseconds(rng() % 300));
                item.processed_by = w;
                pipeline.Finish(std::move(item));
            }
        });
    }
    return workers;
}

TEST(OrderedPipeline, EmitsEveryBatchOnceInSubmissionOrder) {
    for (int workers : {1, 3, 8}) {
        for (size_t in_flight : {1u, 2u, 5u, 17u}) {
            Pipeline pipeline(in_flight);
            auto threads = StartWorkers(pipeline, workers, 7 * workers + static_cast<unsigned>(in_flight));
            std::vector<int> emitted;
            std::thread writer([&] {
                Item item;
                while (pipeline.NextInOrder(item)) {
                    EXPECT_EQ(item.sequence, emitted.size());
                    EXPECT_GE(item.processed_by, 0);
                    emitted.push_back(item.value);
                    pipeline.Emitted();
                }
            });
            constexpr int kItems = 300;
            for (int k = 0; k < kItems; ++k) {
                Item item;
                item.value = k * 3;
                ASSERT_TRUE(pipeline.Submit(std::move(item)));
            }
            pipeline.Close();
            pipeline.WaitUntilEmitted();
            writer.join();
            for (auto& thread : threads)
                thread.join();
            ASSERT_EQ(emitted.size(), static_cast<size_t>(kItems)) << workers << " " << in_flight;
            for (int k = 0; k < kItems; ++k)
                EXPECT_EQ(emitted[k], k * 3);
        }
    }
}

// A writer that stops taking batches holds the submitter back after exactly
// max_in_flight batches: memory stays bounded by the tickets.
TEST(OrderedPipeline, StalledWriterStopsTheSubmitter) {
    Pipeline pipeline(4);
    auto threads = StartWorkers(pipeline, 2, 1);
    std::atomic<int> submitted{0};
    std::thread submitter([&] {
        for (int k = 0; k < 20; ++k) {
            if (!pipeline.Submit(Item{})) return;
            ++submitted;
        }
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_EQ(submitted.load(), 4);
    // Each emitted batch lets exactly one more in.
    Item item;
    for (int k = 0; k < 3; ++k) {
        ASSERT_TRUE(pipeline.NextInOrder(item));
        EXPECT_EQ(item.sequence, static_cast<uint64_t>(k));
        pipeline.Emitted();
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_EQ(submitted.load(), 7);

    // A stop (a failed write) releases the blocked submitter and the workers.
    pipeline.Stop();
    submitter.join();
    for (auto& thread : threads)
        thread.join();
    EXPECT_EQ(submitted.load(), 7);
    EXPECT_FALSE(pipeline.Submit(Item{}));
    EXPECT_FALSE(pipeline.NextInOrder(item));
    EXPECT_TRUE(pipeline.Stopped());
}

}  // namespace
