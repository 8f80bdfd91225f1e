// SPDX-License-Identifier: Apache-2.0
// The chain tool and the converter against the real qemu-img.
#include <gmock/gmock.h>

#include "base/RandomBytes.h"
#include "base/SHA256.h"
#include "core/DorvaneError.h"
#include "qemu/QEMUDiskImageTool.h"
#include "qemu/QEMUImageConverter.h"
#include "qemu/QMPConnection.h"
#include "qemu_tools/RealQEMU.h"
#include "support/ErrorOf.h"
#include "support/LogCapture.h"
#include "support/TemporaryDirectory.h"

namespace dorvane {
namespace {

constexpr std::uint64_t mebibyte = 1 << 20;

class ImageTools : public testing::Test {
  protected:
    const QEMURuntimeResources resources = test::realQEMU();
    const QEMUImageChainTool tool{resources.imageTool};
    test::TemporaryDirectory directory;
    test::RealTime time;
    test::LogCapture log;

    Path path(const std::string& name) { return directory / name; }

    /// A raw image with `content` at its beginning.
    void writeRaw(const std::string& name, ByteView content, std::uint64_t size = 8 * mebibyte) {
        writeFileAtomically(path(name), content);
        truncateFile(path(name), size);
    }
    void convert(const std::string& from, const std::string& to, QEMUImageConverter::Progress progress = {}) {
        time.run(QEMUImageConverter::convertToQcow2(time.runtime(), resources.imageTool, path(from), "raw",
                                                    path(to), std::move(progress)));
    }
    /// The digest of what a guest would read.
    std::string content(const std::string& image) {
        const std::vector<std::string> arguments{"convert", "-O", "raw", path(image).string(),
                                                 path("flat").string()};
        const auto output = runBlocking({resources.imageTool, arguments});
        if (!output.status.isSuccess()) throw std::runtime_error(std::string(asText(output.standardError)));
        return SHA256::hex(readFile(path("flat")));
    }
};

TEST_F(ImageTools, ConvertsWithProgress) {
    const auto random = randomBytes(4 * mebibyte);
    writeRaw("in.raw", random, 64 * mebibyte);
    std::vector<double> progress;
    convert("in.raw", "out.qcow2", [&](double value) { progress.push_back(value); });
    EXPECT_EQ(tool.virtualSize(path("out.qcow2")), 64 * mebibyte);
    EXPECT_EQ(content("out.qcow2"), SHA256::hex(readFile(path("in.raw"), 64 * mebibyte)));
    ASSERT_FALSE(progress.empty());
    EXPECT_TRUE(std::is_sorted(progress.begin(), progress.end()));
    EXPECT_EQ(progress.back(), 1.0);
}

TEST_F(ImageTools, AFailedConversionTellsWhy) {
    const auto error = test::errorOf([&] { convert("missing.raw", "out.qcow2"); });
    EXPECT_EQ(error.which(), DorvaneError::Case::vmImportFailed);
    EXPECT_THAT(error.text(), testing::HasSubstr("No such file or directory"));
}

TEST_F(ImageTools, ACancelledConversionEndsTheTool) {
    // Enough data that the tool is busy for a while after it has told its first progress.
    constexpr auto size = 256 * mebibyte;
    writeRaw("in.raw", Bytes(size, 0x5a), size);
    const Event started;
    const auto cancelled = [](test::RealTime& real, Task<void> task, Event begun) -> Task<void> {
        OneShot<void> outcome;
        auto handle = spawn(real.runtime().main.executor(), deliver(std::move(task), outcome), "conversion");
        co_await begun.wait();
        handle.cancel();
        co_await outcome.wait();
    };
    auto conversion =
        QEMUImageConverter::convertToQcow2(time.runtime(), resources.imageTool, path("in.raw"), "raw",
                                           path("out.qcow2"), [started](double) { started.set(); });
    EXPECT_THROW(time.run(cancelled(time, std::move(conversion), started)), CancellationError);
    const auto output = path("out.qcow2");
    EXPECT_TRUE(!std::filesystem::exists(output) || std::filesystem::file_size(output) < size);
}

TEST_F(ImageTools, AChainKeepsItsContentThroughEveryOperation) {
    writeRaw("base.raw", randomBytes(mebibyte));
    convert("base.raw", "base.qcow2");
    const auto original = content("base.qcow2");

    tool.createOverlay(path("top.qcow2"), path("base.qcow2").string());
    EXPECT_EQ(tool.backingPath(path("top.qcow2")), path("base.qcow2").string());
    EXPECT_EQ(tool.backingPath(path("base.qcow2")), std::nullopt);
    EXPECT_EQ(tool.virtualSize(path("top.qcow2")), 8 * mebibyte);
    EXPECT_EQ(content("top.qcow2"), original);

    std::filesystem::rename(path("base.qcow2"), path("moved.qcow2"));
    tool.retargetBackingUnsafe(path("top.qcow2"), path("moved.qcow2").string());
    EXPECT_EQ(content("top.qcow2"), original);

    tool.createOverlayWithoutOpeningBacking(path("later.qcow2"), path("not-yet.qcow2").string(),
                                            8 * mebibyte);
    EXPECT_EQ(tool.backingPath(path("later.qcow2")), path("not-yet.qcow2").string());
    std::filesystem::rename(path("top.qcow2"), path("not-yet.qcow2"));
    EXPECT_EQ(content("later.qcow2"), original);

    tool.commit(path("later.qcow2"));
    tool.rebase(path("later.qcow2"), path("moved.qcow2").string());
    EXPECT_EQ(content("later.qcow2"), original);
    tool.rebase(path("later.qcow2"), std::nullopt);
    std::filesystem::remove(path("moved.qcow2"));
    EXPECT_EQ(tool.backingPath(path("later.qcow2")), std::nullopt);
    EXPECT_EQ(content("later.qcow2"), original);

    tool.resize(path("later.qcow2"), 16 * mebibyte);
    EXPECT_EQ(tool.virtualSize(path("later.qcow2")), 16 * mebibyte);
    tool.retargetBackingUnsafe(path("not-yet.qcow2"), std::nullopt);
    EXPECT_EQ(tool.backingPath(path("not-yet.qcow2")), std::nullopt);
}

TEST_F(ImageTools, ARunningQEMUsImageCanBeReadAndNotChanged) {
    const QEMUDiskImageTool disk(resources.imageTool);
    disk.createImage(path("held.qcow2"), 32 * mebibyte);
    const auto socket = path("q.sock").string();
    const test::RealQEMUChild child(
        resources, {"-machine", "none", "-nodefaults", "-display", "none", "-qmp",
                    "unix:" + socket + ",server=on,wait=off", "-blockdev",
                    "qcow2,node-name=d,file.driver=file,file.filename=" + path("held.qcow2").string()});
    const auto connection = std::make_shared<QMPConnection>(time.runtime());
    time.run(connection->connect(socket, seconds(10)));
    EXPECT_EQ(tool.virtualSize(path("held.qcow2")), 32 * mebibyte);
    EXPECT_EQ(tool.backingPath(path("held.qcow2")), std::nullopt);
    const auto resize = [&] { disk.resizeImage(path("held.qcow2"), 64 * mebibyte); };
    EXPECT_THAT(test::errorOf(resize).text(), testing::HasSubstr("Failed to get \"write\" lock"));
    tool.createOverlayWithoutOpeningBacking(path("over.qcow2"), path("held.qcow2").string(), 32 * mebibyte);
}

}  // namespace
}  // namespace dorvane
