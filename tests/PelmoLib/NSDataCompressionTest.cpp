#include "PelmoLib/encodings/NSData+Compression.h"

#include <gtest/gtest.h>

#include <random>
#include <thread>

#include "tests/support/LogCapture.h"

namespace velkor {
namespace {

using NS::Data;

Data sample(std::size_t size) {
    std::mt19937 random(7);
    std::string bytes(size, '\0');
    for (char& c : bytes) c = static_cast<char>('a' + random() % 5);
    return Data(std::move(bytes));
}

TEST(NSDataCompressionTest, inflatesWhatItDeflates) {
    for (const std::size_t size : {0, 1, 500, 16383, 16384, 16385, 3'000'000}) {
        const Data data = sample(size);
        for (const auto& [deflate, inflate] :
             {std::pair(&zlibDeflate, &zlibInflate), {&gzipDeflate, &gzipInflate}, {&zlibDeflate, &gzipInflate}}) {
            const auto stream = deflate(data);
            ASSERT_TRUE(stream);
            EXPECT_EQ(stream->empty(), size == 0);
            EXPECT_EQ(inflate(*stream), data) << size;
        }
    }
    EXPECT_EQ(zlibDeflate(Data::copyOf("abc"))->view().substr(0, 2), "\x78\x9C");  // default level
    EXPECT_EQ(gzipDeflate(Data::copyOf("abc"))->view().substr(0, 3), "\x1F\x8B\x08");
    EXPECT_FALSE(zlibInflate(*gzipDeflate(Data::copyOf("abc"))));
}

TEST(NSDataCompressionTest, refusesDamagedAndIncompleteStreams) {
    const Data stream = *zlibDeflate(sample(5000));
    for (std::size_t size = 1; size < stream.size(); ++size)
        EXPECT_FALSE(zlibInflate(Data::copyOf(stream.view().substr(0, size)))) << size;
    std::string damaged(stream.view());
    damaged.back() ^= 1;
    EXPECT_FALSE(zlibInflate(Data(damaged)));
    EXPECT_FALSE(zlibInflate(Data::copyOf("no stream")));
    EXPECT_TRUE(zlibInflate(stream));  // a failure leaves nothing behind for the next

    std::string out = "before";
    EXPECT_FALSE(appendZlibInflate(out, damaged));
    EXPECT_EQ(out, "before");
    EXPECT_TRUE(appendZlibInflate(out, stream.view()));
    EXPECT_EQ(out.size(), 5006U);
}

TEST(NSDataCompressionTest, boundsWhatAStreamInflatesTo) {
    const Data stream = *zlibDeflate(Data(std::string(1'000'000, 'x')));
    EXPECT_EQ(maximumInflatedSize(), std::size_t{64} << 20);
    setMaximumInflatedSize(1'000'000);
    EXPECT_TRUE(zlibInflate(stream));
    setMaximumInflatedSize(999'999);
    test::LogCapture log;
    EXPECT_FALSE(zlibInflate(stream));
    EXPECT_EQ(log.entries().size(), 1U);
}

TEST(NSDataCompressionTest, servesThreadsSideBySide) {
    std::vector<std::thread> threads;
    for (std::size_t i = 0; i < 4; ++i) {
        threads.emplace_back([i] {
            for (std::size_t size = 1; size < 40; ++size)
                EXPECT_EQ(zlibInflate(*zlibDeflate(sample(size * 100 + i))), sample(size * 100 + i));
        });
    }
    for (auto& thread : threads) thread.join();
}

TEST(NSDataCompressionTest, computesTheChecksum) {
    EXPECT_EQ(crc32Checksum("123456789"), 0xCBF43926U);
    EXPECT_EQ(crc32Checksum(Data()), 0U);
}

}  // namespace
}  // namespace velkor
