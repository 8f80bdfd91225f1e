// SPDX-License-Identifier: Apache-2.0
// Archives that other ZIP programs read and write: Info-ZIP, bsdtar, Python.
#include <fcntl.h>

#include "backup/RealBackup.h"
#include "base/RandomBytes.h"
#include "qemu/QEMUImageChainTool.h"
#include "snapshots/SnapshotChainNode.h"
#include "snapshots/VMBackupServiceUnpacking.h"

namespace dorvane::test {
namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;

class BackupPeers : public testing::Test, protected RealBackupScene {
  protected:
    Path work = backups / "work";
    BackupPeers() { fs::create_directories(work); }

    /// In the work folder, with the archive as $A and the source's bundle as $S.
    bool runs(const std::string& command, const Path& packed = {}) {
        return shell(fmt::format("A='{}' S='{}'; cd '{}'; {}", (packed.empty() ? archive : packed).string(),
                                 (storage / "source").string(), work.string(), command));
    }
};

TEST_F(BackupPeers, OthersReadWhatThisProgramPacks) {
    const auto source = addVM("source");
    fs::create_directories(source->bundle().directoryURL / "leer");
    writeFileAtomically(source->bundle().directoryURL / "größe (1).txt", "umlauts");
    run(service.exportBackup(source, archive, {}));
    EXPECT_TRUE(runs("unzip -tqq \"$A\""));
    EXPECT_TRUE(
        runs("python3 -c 'import sys, zipfile; z = zipfile.ZipFile(sys.argv[1]); "
             "sys.exit(z.testzip() is not None)' \"$A\""));
    EXPECT_TRUE(runs("bsdtar -xSf \"$A\" && diff -r --no-dereference source \"$S\""));
    EXPECT_TRUE(runs("cat \"$A\" | bsdtar -tf - | grep -q '^source/leer/$'")) << "also without its directory";
    EXPECT_TRUE(
        runs("test \"$(unzip -Z1 \"$A\" | cut -d/ -f1 | sort -u | tr '\\n' ' ')\" = "
             "'manifest.json source vm-record.json '"));
}

TEST_F(BackupPeers, ADiskAboveFourGigabytesIsReadByOthersAndComesBackWithItsHoles) {
    const auto source = addVM("source");
    // Data at both ends, so that sizes need ZIP64.
    const auto random = randomBytes(3 << 20);
    const FileDescriptor fd(::open(source->bundle().rawDisk().c_str(), O_WRONLY | O_CLOEXEC));
    ASSERT_EQ(::ftruncate(fd.get(), (std::int64_t{4} << 30) + (700 << 20) + 12345), 0);
    for (const auto at : {std::int64_t{0}, (std::int64_t{4} << 30) + (600 << 20) + 77})
        ASSERT_EQ(::pwrite(fd.get(), random.data(), random.size(), at), static_cast<ssize_t>(random.size()));
    run(service.exportBackup(source, archive, {}));
    EXPECT_LT(fs::file_size(archive), std::uint64_t{16} << 20);
    EXPECT_TRUE(runs("unzip -tqq \"$A\""));
    EXPECT_TRUE(runs(fmt::format("bsdtar -tvf \"$A\" | grep -q ' {} .*disk.img'",
                                 source->bundle().diskImageLogicalSize())));
    EXPECT_TRUE(runs(
        fmt::format("test \"$(zipinfo -t \"$A\" | sed -E 's/.* ([0-9]+) bytes uncompressed.*/\\1/')\" = {}",
                    *zipUncompressedBytes(archive))));

    const auto copy = run(service.restoreBackup(archive, "copy", {}))->bundle().rawDisk();
    EXPECT_TRUE(runs("cmp \"$S/disk.img\" \"$A\"", copy));
    EXPECT_TRUE(runs("test \"$(du -k \"$A\" | cut -f1)\" -le 7000", copy));
}

TEST_F(BackupPeers, DisksThatLeadOutOfTheBackupAreRefused) {
    const QEMUImageChainTool tool(realQEMU().imageTool);
    auto with = collaborators();
    with.chainTool = &tool;
    VMBackupService careful(with);
    const auto source = addVM("source");
    const auto bundle = source->bundle();
    const auto layer = UUID::random();
    const auto frozen = SnapshotChainNode::snapshot(layer).diskURL(bundle);
    fs::create_directory(frozen.parent_path());
    const auto secret = backups / "secret";
    writeFileAtomically(secret, Bytes(1 << 20));
    const auto base = [&](const Path& disk, const std::string& backing) {
        fs::remove(disk);
        tool.createOverlayWithoutOpeningBacking(disk, backing, 1 << 20);
    };
    const auto onLayer = SnapshotChainNode::live().backingPath(layer);
    base(frozen, secret.string());
    tool.retargetBackingUnsafe(frozen, std::nullopt);
    base(bundle.qcow2Disk(), onLayer);
    run(careful.exportBackup(source, archive, {}));
    EXPECT_NO_THROW(run(careful.restoreBackup(archive, "sound", {})));

    const auto refuses = [&](const std::string& what, const char* words) {
        run(careful.exportBackup(source, archive, {}));
        const auto error = failureOf(careful.restoreBackup(archive, "copy", {}));
        EXPECT_EQ(error.which(), DorvaneError::Case::vmRestoreFailed) << what;
        EXPECT_THAT(error.text(), HasSubstr(words)) << what;
        EXPECT_FALSE(fs::exists(storage / "copy")) << what;
        EXPECT_EQ(std::distance(fs::directory_iterator(storage), {}), 2) << what;
    };
    for (const auto& backing : {secret.string(), "../../backups/" + secret.filename().string(),
                                "json:{\"driver\":\"raw\",\"file\":\"" + secret.string() + "\"}"}) {
        base(bundle.qcow2Disk(), backing);
        refuses("live on " + backing, "is not a snapshot of this VM");
        base(bundle.qcow2Disk(), onLayer);
        base(frozen, backing);
        refuses("layer on " + backing, "is not a snapshot of this VM");
        tool.retargetBackingUnsafe(frozen, std::nullopt);
    }
    const FileDescriptor fd(::open(bundle.qcow2Disk().c_str(), O_WRONLY | O_CLOEXEC));
    constexpr off_t featureByte = 79;
    ASSERT_EQ(::pwrite(fd.get(), "\4", 1, featureByte), 1);
    refuses("external data", "keeps its data in another file");
}

TEST_F(BackupPeers, RestoresWhatOthersPack) {
    const auto source = addVM("source");
    writeFileAtomically(source->bundle().directoryURL / "größe (1).txt", "umlauts");
    run(service.exportBackup(source, archive, {}));
    ASSERT_TRUE(runs("unzip -qq \"$A\""));
    auto expected = everythingIn(source->vmPath);
    for (const auto* gone :
         {"state.vzvmsave", "state.vzvmsave.hash", "state.vzvmsave.devices", "ephemeral.json", "config.json"})
        expected.erase(gone);

    const auto python = [](const std::string& how) {
        return "python3 -c 'import os, sys, zipfile\n"
               "z = zipfile.ZipFile(" +
               how +
               ")\n"
               "for root, folders, files in os.walk(\".\"):\n"
               "    for f in files: z.write(os.path.join(root, f))\n"
               "z.close()' \"$A\"";
    };
    const std::vector<std::string> packers{
        "zip -qr -y \"$A\" .",
        "zip -qr -y -0 \"$A\" .",
        "zip -qr - . -x '*/latest*' | cat >\"$A\"",
        "bsdtar -c --format zip -f \"$A\" *",
        "bsdtar -c --format zip --options zip:compression=store -f \"$A\" *",
        "bsdtar -c --format zip * | cat >\"$A\"",
        python("sys.argv[1], \"w\", zipfile.ZIP_DEFLATED"),
        python("sys.argv[1], \"w\", zipfile.ZIP_STORED"),
        python("open(\"/dev/stdout\", \"wb\", buffering=0), \"w\", zipfile.ZIP_DEFLATED") + " | cat >\"$A\"",
    };
    for (std::size_t i = 0; i < packers.size(); ++i) {
        const auto packed = backups / (std::to_string(i) + ".zip");
        ASSERT_TRUE(runs(packers[i], packed)) << packers[i];
        try {
            const auto vm = run(service.restoreBackup(packed, "copy " + std::to_string(i), {}));
            auto contents = everythingIn(vm->vmPath);
            contents.erase("config.json");
            // Python follows links to files and leaves those to folders out; a stream can't hold links.
            auto wanted = expected;
            wanted.erase("Snapshots/latest");
            contents.erase("Snapshots/latest");
            EXPECT_EQ(contents, wanted) << packers[i];
        } catch (const std::exception& error) {
            ADD_FAILURE() << packers[i] << ": " << error.what();
        }
    }
    const std::vector<std::pair<std::string, std::string>> refused{
        {"zip -qr -P secret \"$A\" .", "encrypted"},
        {python("sys.argv[1], \"w\", zipfile.ZIP_BZIP2"), "method 12"},
        {python("sys.argv[1], \"w\", zipfile.ZIP_LZMA"), "method 14"},
        {"bsdtar -c --format 7zip -f \"$A\" *", "not a ZIP archive"},
        {"cd ..; zip -qr \"$A\" work", "holds no \"manifest.json\""},
    };
    for (const auto& [packer, words] : refused) {
        const auto packed = backups / "refused.zip";
        fs::remove(packed);
        ASSERT_TRUE(runs(packer, packed)) << packer;
        EXPECT_THAT(failureOf(service.restoreBackup(packed, "refused", {})).text(), HasSubstr(words))
            << packer;
    }
}

}  // namespace
}  // namespace dorvane::test
