#include "quillet_capture/pipeline/CaptureVaults.hpp"

#include "tests/support/Scratch.hpp"

#include <gtest/gtest.h>

namespace quillet {
namespace {

namespace fs = std::filesystem;

// The vaults survive a restart, a finished capture leaves nothing behind, and a file that
// cannot be read (older agents never wrote one) means every capture is in the vault named now.
TEST(CaptureVaults, KeptAcrossRunsUntilTheCaptureFinishes)
{
    test::ScratchDir dir;
    const auto file = dir.path() / "capture-vaults.json";
    {
        CaptureVaults vaults(file);
        EXPECT_TRUE(vaults.all().empty());
        vaults.record("240101-080000", "/notes/first");
        vaults.record("240101-080001", "/notes/first");
        vaults.record("240101-080001", "/notes/second vault");
        vaults.record("240101-08000\xff", "/notes/caf\xe9");  // bytes that are not UTF-8
    }
    CaptureVaults again(file);
    EXPECT_EQ(again.find("240101-080000"), fs::path("/notes/first"));
    EXPECT_EQ(again.find("240101-080001"), fs::path("/notes/second vault"));
    EXPECT_EQ(again.find("240101-08000\xff"), fs::path("/notes/caf\xe9"));
    EXPECT_EQ(again.find("240101-080009"), std::nullopt);
    again.forget("240101-080000");
    again.forget("240101-080000");
    EXPECT_EQ(CaptureVaults(file).find("240101-080000"), std::nullopt);
    EXPECT_EQ(CaptureVaults(file).all().size(), 2u);

    test::writeFile(file, "{\"captures\": [");
    EXPECT_TRUE(CaptureVaults(file).all().empty());
}

} // namespace
} // namespace quillet
