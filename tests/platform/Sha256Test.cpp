#include "quillet_capture/platform/Sha256.hpp"

#include "tests/support/Scratch.hpp"

#include <gtest/gtest.h>

#include <string>

namespace quillet {
namespace {

std::string digestOf(const std::string& bytes)
{
    Sha256 digest;
    digest.update(bytes.data(), bytes.size());
    return digest.hexDigest();
}

// The test vectors of FIPS 180-2, and a file read in several pieces.
TEST(Sha256, KnownDigestsOfTextsAndFiles)
{
    EXPECT_EQ(digestOf(""), "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
    EXPECT_EQ(digestOf("abc"), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
    EXPECT_EQ(digestOf("abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq"),
              "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1");

    // A million "a"s, added in uneven pieces and read from a file larger than one read.
    const std::string million(1'000'000, 'a');
    Sha256 pieces;
    for (std::size_t at = 0; at < million.size(); at += 333'333) {
        auto piece = million.substr(at, 333'333);
        pieces.update(piece.data(), piece.size());
    }
    const std::string expected = "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0";
    EXPECT_EQ(pieces.hexDigest(), expected);
    test::ScratchDir dir;
    test::writeFile(dir.path() / "a.m4a", million + million);
    EXPECT_EQ(Sha256::ofFile(dir.path() / "a.m4a"), digestOf(million + million));
    EXPECT_TRUE(Sha256::isHexDigest(expected));
    EXPECT_FALSE(Sha256::isHexDigest(expected.substr(1)));
    EXPECT_FALSE(Sha256::isHexDigest("CDC" + expected.substr(3)));

    EXPECT_THROW(Sha256::ofFile(dir.path() / "missing.m4a"), std::system_error);
}

} // namespace
} // namespace quillet
