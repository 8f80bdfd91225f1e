// SPDX-License-Identifier: Apache-2.0
// A machine's folder with real layers, and what a guest reads of each.
#pragma once

#include "base/SHA256.h"
#include "qemu/QEMUImageChainTool.h"
#include "qemu_tools/RealQEMU.h"
#include "runtime/ChildProcess.h"
#include "snapshots/SnapshotChainRepair.h"
#include "support/LogCapture.h"
#include "support/TemporaryDirectory.h"

namespace dorvane::test {

/// The disks of one bundle. A line is A < B < C < live; branches make it a tree of A < B < C, A < D < E and
/// D < F < live.
class ChainDisks {
  public:
    using Node = SnapshotChainNode;
    /// Digests of what a guest reads, by "live" or the snapshot's identifier.
    using Contents = std::map<std::string, std::string>;

    static constexpr std::size_t clusterSize = 64 << 10;
    static constexpr std::size_t clusters = 24;

    explicit ChainDisks(Path directory, const Path& with = realQEMU().imageTool)
        : bundle(std::move(directory)), tool(with), store(std::make_shared<QEMUImageChainTool>(with)) {}

    const VMBundle bundle;
    const QEMUImageChainTool tool;
    const SnapshotChainStore store;

    static UUID id(char letter) {
        return *UUID::parse("ABCDEF00-0000-4000-8000-00000000000" + std::string(1, letter));
    }
    Path live() const { return bundle.qcow2Disk(); }
    Path disk(const UUID& snapshot) const { return Node::snapshot(snapshot).diskURL(bundle); }

    void capture(char letter) const {
        guestWrites(letter);
        store.capture(bundle, id(letter));
        writeFileAtomically(Node::directory(bundle, id(letter)) / "meta.json", std::string_view("{}"));
    }
    void buildLine() const {
        std::filesystem::create_directory(bundle.directoryURL);
        writeFileAtomically(bundle.configFile(), std::string_view("{}"));
        imageTool({"create", "-q", "-f", "qcow2", live().string(), std::to_string(clusters * clusterSize)});
        for (const char letter : {'A', 'B', 'C'}) capture(letter);
        guestWrites('1');
    }
    /// The live disk stands on F afterwards.
    void addBranches() const {
        store.restore(bundle, id('A'));
        for (const char letter : {'D', 'E'}) capture(letter);
        store.restore(bundle, id('D'));
        capture('F');
        guestWrites('2');
    }

    /// The guest writes a cluster that every layer has and two of this layer's own, and zeroes an older one.
    void guestWrites(char letter) const {
        const auto number = static_cast<std::size_t>(letter) % (clusters - 3) + 1;
        std::string commands;
        for (const auto cluster : {std::size_t{0}, number, number + 1})
            commands += fmt::format("qemu-io guest \"write -P {} {} {}\"\n", static_cast<int>(letter),
                                    cluster * clusterSize, clusterSize);
        commands += fmt::format("qemu-io guest \"write -z {} {}\"\nquit\n", (number - 1) * clusterSize + 4096,
                                clusterSize / 2);
        const auto command =
            emulator({"-machine", "none", "-nodefaults", "-display", "none", "-monitor", "stdio", "-drive",
                      "if=none,id=guest,format=qcow2,file=" + live().string()});
        const auto before = SHA256::hex(readFile(live()));
        const auto output = runBlocking(command, asBytes(commands));
        if (!output.status.isSuccess() || SHA256::hex(readFile(live())) == before)
            throw std::runtime_error("the guest wrote nothing: " + std::string(asText(output.standardError)) +
                                     std::string(asText(output.standardOutput)));
    }

    Contents contents() const {
        Contents all{{"live", content(live())}};
        for (const auto& snapshot : store.snapshotIDsOnDisk(bundle)) {
            const auto directory = Node::directory(bundle, snapshot);
            if (!std::filesystem::exists(directory / ".merging") && std::filesystem::exists(disk(snapshot)))
                all[snapshot.text()] = content(disk(snapshot));
        }
        return all;
    }
    /// Leaked clusters are all that an interrupted tool may leave in an image.
    void expectSoundImages() const {
        check(live());
        for (const auto& snapshot : store.snapshotIDsOnDisk(bundle)) check(disk(snapshot));
    }
    /// The names in the bundle that only stand there in the middle of something.
    std::vector<std::string> leftovers() const {
        std::vector<std::string> found;
        for (const auto& entry : std::filesystem::recursive_directory_iterator(bundle.directoryURL)) {
            const auto name = entry.path().filename().string();
            for (const char* suffix :
                 {".capturing", ".merging", ".rebasing", ".deleted", ".discarded", ".restoring"})
                if (name.ends_with(suffix)) found.push_back(name);
        }
        return found;
    }

    /// Of every name in the bundle and all bytes.
    std::string filesDigest() const {
        std::map<std::string, std::string> files;
        for (const auto& entry : std::filesystem::recursive_directory_iterator(bundle.directoryURL))
            files[entry.path().lexically_relative(bundle.directoryURL).string()] =
                entry.is_regular_file() ? SHA256::hex(readFile(entry.path())) : "";
        return SHA256::hex(compactJSON(JSON(files)));
    }

    static Bytes rawContent(const Path& image) {
        const TemporaryDirectory scratch;
        imageTool({"convert", "-O", "raw", image.string(), (scratch / "raw").string()});
        return readFile(scratch / "raw");
    }

  private:
    /// The same files read the same: what was seen once isn't converted again.
    std::string content(const Path& image) const {
        auto& known = contentByLayers_[layersDigest(image)];
        if (known.empty()) known = SHA256::hex(rawContent(image));
        return known;
    }
    void check(const Path& image) const {
        if (!checked_.insert(layersDigest(image)).second) return;
        imageTool({"check", "-q", "-f", "qcow2", image.string()}, 3);
    }
    /// Of the image's file and all that it stands on. The backing path lies where bytes 8 to 19 of the header
    /// say (the qcow2 specification in QEMU's docs/interop/qcow2.txt).
    std::string layersDigest(const Path& image) const {
        const auto bytes = readFile(image);
        const auto number = [&](std::size_t from, std::size_t count) {
            std::size_t value = 0;
            for (auto index = from; index < from + count; ++index) value = value << 8 | bytes.at(index);
            return value;
        };
        const auto offset = number(8, 8), length = number(16, 4);
        auto digest = SHA256::hex(bytes);
        if (offset == 0) return digest;
        const std::string backing(asText(ByteView(bytes).subspan(offset, length)));
        return SHA256::hex(asBytes(digest + layersDigest(image.parent_path() / backing)));
    }

    static inline std::map<std::string, std::string> contentByLayers_;
    static inline std::set<std::string> checked_;
};

}  // namespace dorvane::test
