#include "PelmoLib/encodings/NSData+Digests.h"

#include <gtest/gtest.h>

namespace velkor {
namespace {

using NS::Data;

TEST(NSDataDigestsTest, givesTheStandardDigests) {
    const Data abc = Data::copyOf("abc");
    EXPECT_EQ(md5HexHash(abc), "900150983cd24fb0d6963f7d28e17f72");
    EXPECT_EQ(sha1HexHash(abc), "a9993e364706816aba3e25717850c26c9cd0d89d");
    EXPECT_EQ(sha256HexHash(abc), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
    EXPECT_EQ(sha512HexHash(abc),
              "ddaf35a193617abacc417349ae20413112e6fa4e89a97ea20a9eeee64b55d39a2192992a274fc1a836ba3c23a3feebbd454d4423643ce80e2a"
              "9ac94fa54ca49f");
    EXPECT_EQ(sha256HexHash(Data()), "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
    EXPECT_EQ(sha256Hash(abc).view().substr(0, 4), "\xBA\x78\x16\xBF");
}

TEST(NSDataDigestsTest, digestsPieceByPieceAndStartsAnew) {
    SHA256Digest digest;
    for (int round = 0; round < 2; ++round) {
        digest.update("a");
        digest.update("");
        digest.update("bc");
        const auto bytes = digest.finish();
        EXPECT_EQ(std::string_view(reinterpret_cast<const char*>(bytes.data()), bytes.size()),
                  sha256Hash(Data::copyOf("abc")).view());
    }
}

}  // namespace
}  // namespace velkor
