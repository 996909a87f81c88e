// SPDX-License-Identifier: Apache-2.0
// Copyright (C) 2026 The kxcamera authors
// Dynamic loading: TALVO_VENDOR_PATH directories in order, then the system
// search; failures keep their reason.
#include "talvo/talvo.h"

#include <string>

#include "support.h"

namespace talvotest {
namespace {

const std::string kDir1 = TALVO_TEST_VENDOR_DIR1; // its probe answers 1
const std::string kDir2 = TALVO_TEST_VENDOR_DIR2; // its probe answers 2
const std::string kMissing = TALVO_TEST_MISSING_DIR;

class DlTest : public PlatformTest {
protected:
    // Which copy of the probe a plain file name finds: 1, 2, or 0 for none.
    static int LoadedCopy(const std::string &vendorPath, const char *file = "libtalvoprobe.so")
    {
        ScopedEnv env("TALVO_VENDOR_PATH", vendorPath.c_str());
        void *handle = TALVODlOpen(file, 1);
        if (handle == nullptr) {
            return 0;
        }
        auto probe = reinterpret_cast<int (*)()>(TALVODlSym(handle, "TalvoProbeValue"));
        const int copy = probe != nullptr ? probe() : -1;
        EXPECT_EQ(TALVODlClose(handle), 0);
        return copy;
    }
};

class DlSearchTest : public DlTest, public ::testing::WithParamInterface<std::pair<std::string, int>> {};

TEST_P(DlSearchTest, FirstVendorDirectoryHoldingTheLibraryWins)
{
    EXPECT_EQ(LoadedCopy(GetParam().first), GetParam().second) << GetParam().first;
}

INSTANTIATE_TEST_SUITE_P(Paths, DlSearchTest,
                         ::testing::Values(std::pair{kDir1 + ":" + kDir2, 1}, std::pair{kDir2 + ":" + kDir1, 2},
                                           std::pair{kMissing + ":" + kDir2 + ":" + kDir1, 2},
                                           std::pair{"::" + kDir1 + "::" + kDir2 + ":", 1}, std::pair{kMissing, 0},
                                           std::pair{std::string(), 0}));

TEST_F(DlTest, NameWithASlashSkipsTheVendorPathAndOthersFallBackToTheSystem)
{
    EXPECT_EQ(LoadedCopy(kDir1, (kDir2 + "/libtalvoprobe.so").c_str()), 2);
    ScopedEnv env("TALVO_VENDOR_PATH", kDir1.c_str());
    void *libm = TALVODlOpen("libm.so.6", 1);
    ASSERT_NE(libm, nullptr) << TALVODlError();
    EXPECT_NE(TALVODlSym(libm, "cos"), nullptr);
    EXPECT_EQ(TALVODlClose(libm), 0);
}

TEST_F(DlTest, FailuresKeepTheirReasonUntilTheNextFailure)
{
    EXPECT_EQ(TALVODlOpen("libtalvo-missing.so", 1), nullptr);
    const std::string reason = TALVODlError();
    EXPECT_NE(reason.find("libtalvo-missing.so"), std::string::npos) << reason;
    EXPECT_EQ(TALVODlError(), reason) << "reading the reason does not clear it";
    void *probe = TALVODlOpen((kDir1 + "/libtalvoprobe.so").c_str(), 1);
    ASSERT_NE(probe, nullptr);
    EXPECT_EQ(TALVODlSym(probe, "NoSuchSymbol"), nullptr);
    EXPECT_NE(std::string(TALVODlError()).find("NoSuchSymbol"), std::string::npos) << TALVODlError();
    EXPECT_EQ(TALVODlClose(probe), 0);
    EXPECT_EQ(TALVODlOpen(nullptr, 1), nullptr);
    EXPECT_EQ(TALVODlSym(nullptr, "cos"), nullptr);
    EXPECT_NE(TALVODlClose(nullptr), 0);
}

} // namespace
} // namespace talvotest
