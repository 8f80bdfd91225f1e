// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>

#include "core/DorvaneError.h"
#include "qemu/QEMUDiskImageTool.h"
#include "qemu/QEMUImageChainTool.h"
#include "qemu/QEMUImageConverter.h"
#include "support/ErrorOf.h"
#include "support/LogCapture.h"
#include "support/TemporaryDirectory.h"
#include "support/TestRuntime.h"

namespace dorvane {
namespace {

using testing::ElementsAre;

/// A qemu-img that keeps its arguments, one a line, and then does what the script says.
struct FakeTool {
    test::TemporaryDirectory directory;
    test::LogCapture log;
    Path path = directory / "qemu-img";

    explicit FakeTool(const std::string& script = "") { behave(script); }
    void behave(const std::string& script) {
        writeFileAtomically(
            path, "#!/bin/sh\nprintf '<%s>' \"$@\" > '" + (directory / "arguments").string() + "'\n" + script,
            0755);
    }
    std::string arguments() { return readTextFile(directory / "arguments"); }
    QEMUImageChainTool chain() { return QEMUImageChainTool(path); }
};

const DorvaneError missingTool(DorvaneError::Case which) {
    return DorvaneError(which, "The disk image tool is missing from this build.");
}

TEST(QEMUImageChainTool, RunsEachOperationWithItsVector) {
    FakeTool fake("echo '{\"virtual-size\": 42}'");
    const auto tool = fake.chain();
    const std::vector<std::pair<std::function<void()>, std::string>> table{
        {[&] { tool.backingPath("/i"); }, "<info><-U><--output=json></i>"},
        {[&] { tool.virtualSize("/i"); }, "<info><-U><--output=json></i>"},
        {[&] { tool.createOverlay("/o", "b"); }, "<create><-q><-f><qcow2><-b><b><-B><qcow2></o>"},
        {[&] { tool.createOverlayWithoutOpeningBacking("/o", "b", 1ULL << 40); },
         "<create><-q><-u><-f><qcow2><-b><b><-B><qcow2></o><1099511627776>"},
        {[&] { tool.retargetBackingUnsafe("/i", "b"); }, "<rebase><-q><-u><-f><qcow2><-b><b><-B><qcow2></i>"},
        {[&] { tool.retargetBackingUnsafe("/i", std::nullopt); }, "<rebase><-q><-u><-f><qcow2><-b><></i>"},
        {[&] { tool.rebase("/i", "b"); }, "<rebase><-q><-f><qcow2><-b><b><-B><qcow2></i>"},
        {[&] { tool.rebase("/i", std::nullopt); }, "<rebase><-q><-f><qcow2><-b><></i>"},
        {[&] { tool.commit("/o"); }, "<commit><-q><-f><qcow2></o>"},
        {[&] { tool.resize("/i", 7); }, "<resize><-q><-f><qcow2></i><7>"},
        {[&] { QEMUDiskImageTool(fake.path).createImage("/n", 9); }, "<create><-q><-f><qcow2></n><9>"},
        {[&] { QEMUDiskImageTool(fake.path).resizeImage("/n", 9); }, "<resize><-q><-f><qcow2></n><9>"},
    };
    for (const auto& [operation, expected] : table) {
        operation();
        EXPECT_EQ(fake.arguments(), expected);
    }
}

TEST(QEMUImageChainTool, ReadsTheLayout) {
    struct Row {
        std::string output;
        std::optional<std::string> backing = {};
        std::optional<std::uint64_t> size = {};
        bool isObject = true;
    };
    const Row table[] = {
        {R"({"backing-filename": "base.qcow2", "virtual-size": 18446744073709551615})", "base.qcow2",
         UINT64_MAX},
        {R"({"virtual-size": 0})", {}, 0},
        {R"({"backing-filename": 5, "virtual-size": "1"})"},
        {R"({"virtual-size": true})"},
        {R"({"virtual-size": -1})"},
        {"[]", {}, {}, false},
        {"", {}, {}, false},
        {"{\"a\": \"\\377\"", {}, {}, false},
    };
    const DorvaneError unreadable(DorvaneError::Case::vmSnapshotFailed,
                                  "Could not read the disk image layout.");
    FakeTool fake;
    for (const auto& row : table) {
        SCOPED_TRACE(row.output);
        fake.behave("cat <<'END'\n" + row.output + "\nEND");
        if (row.isObject)
            EXPECT_EQ(fake.chain().backingPath("/i"), row.backing);
        else
            EXPECT_EQ(test::errorOf([&] { fake.chain().backingPath("/i"); }), unreadable);
        if (row.size)
            EXPECT_EQ(fake.chain().virtualSize("/i"), *row.size);
        else
            EXPECT_EQ(test::errorOf([&] { fake.chain().virtualSize("/i"); }), unreadable);
    }
}

TEST(QEMUImageChainTool, TellsTheToolsOwnWords) {
    FakeTool fake("echo '  no such image ' >&2; exit 1");
    const auto error = test::errorOf([&] { fake.chain().commit("/o"); });
    EXPECT_EQ(error, DorvaneError(DorvaneError::Case::vmSnapshotFailed,
                                  "The disk image tool failed: no such image"));
    EXPECT_TRUE(fake.log.contains("qemu-img commit failed: no such image"));
    fake.behave("kill -KILL $$");
    EXPECT_THROW(fake.chain().commit("/o"), DorvaneError);
    EXPECT_EQ(test::errorOf([] { QEMUImageChainTool("/missing/qemu-img").commit("/o"); }),
              missingTool(DorvaneError::Case::vmSnapshotFailed));
    std::filesystem::permissions(fake.path, std::filesystem::perms::owner_read);
    EXPECT_THROW(fake.chain().commit("/o"), POSIXError);
}

TEST(QEMUImageConverter, ReadsTheLastProgress) {
    const std::vector<std::pair<std::string, std::optional<double>>> table{
        {"    (42.50/100%)\r", 0.425},
        {"(100.00/100%)\n", 1.0},
        {"(1.00/100%)\r(7/100%)", 0.07},
        {"(250/100%)", 1.0},
        {"(5/100%) (x/100%) (.5/100%) (5./100%) (1.2.3/100%) 8/100%) (/100%)", 0.05},
        {"", std::nullopt},
        {"(42.50/100", std::nullopt},
        {"/100%)", std::nullopt}};
    for (const auto& [text, value] : table) EXPECT_EQ(QEMUImageConverter::lastProgress(text), value) << text;
}

struct Conversion {
    test::TestRuntime test{test::TestRuntime::TimeMode::manual};
    FakeTool fake;
    std::vector<double> progress;

    explicit Conversion(const std::string& script) : fake(script) {}
    Task<void> task() {
        return QEMUImageConverter::convertToQcow2(test.runtime(), fake.path, "/in", "parallels", "/out",
                                                  [this](double value) { progress.push_back(value); });
    }
};

TEST(QEMUImageConverter, ReportsProgressAndWhatRemainsAtTheEnd) {
    Conversion conversion(
        "printf '    (0.00/100%%)\\r'; sleep 0.05; printf '(37.25/100%%)\\r(100.00/100%%)\\n'");
    conversion.test.run(conversion.task());
    EXPECT_EQ(conversion.fake.arguments(), "<convert><-p><-f><parallels><-O><qcow2></in></out>");
    ASSERT_FALSE(conversion.progress.empty());
    EXPECT_EQ(conversion.progress.front(), 0.0);
    EXPECT_EQ(conversion.progress.back(), 1.0);
}

TEST(QEMUImageConverter, FailuresCarryTheToolsWordsOrItsStatus) {
    const std::pair<std::string, std::string> table[] = {
        {"head -c 200000 /dev/zero | tr '\\0' '\\n' >&2; exit 1",
         "The disk conversion exited with status 1."},
        {"echo ' bad image ' >&2; exit 2", "bad image"}};
    for (const auto& [script, reason] : table) {
        Conversion conversion(script);
        EXPECT_EQ(test::errorOf([&] { conversion.test.run(conversion.task()); }),
                  DorvaneError(DorvaneError::Case::vmImportFailed, reason));
    }
    Conversion killed("echo 'half way' >&2; kill -TERM $$");
    EXPECT_THROW(killed.test.run(killed.task()), CancellationError);
    std::filesystem::remove(killed.fake.path);
    EXPECT_EQ(test::errorOf([&] { killed.test.run(killed.task()); }),
              missingTool(DorvaneError::Case::vmImportFailed));
}

TEST(QEMUImageConverter, ACancellationEndsTheTool) {
    Conversion conversion("printf '(1.00/100%%)\\r'; exec sleep 60");
    OneShot<void> outcome;
    auto handle =
        spawn(conversion.test.runtime().main.executor(), deliver(conversion.task(), outcome), "test");
    conversion.test.driveUntil([&] { return !conversion.progress.empty(); });
    handle.cancel();
    conversion.test.driveUntil([&] { return outcome.isDecided(); });
    EXPECT_THROW(outcome.take(), CancellationError);
}

}  // namespace
}  // namespace dorvane
