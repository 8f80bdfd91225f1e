// SPDX-License-Identifier: Apache-2.0
// A disk tool whose layers are small JSON files: they have headers, clusters and content like real ones, and
// any call can fail before it does anything or in the middle.
#pragma once

#include <fstream>
#include <map>
#include <vector>

#include "base/JSON.h"
#include "core/DorvaneError.h"
#include "qemu/QCOW2ChainToolProtocol.h"

namespace dorvane::test {

class FakeChainTool : public QCOW2ChainToolProtocol {
  public:
    using Content = std::map<std::string, std::string>;
    enum class Failure { before, midway };

    /// The calls so far, as "commit disk.qcow2": the name of the file's directory stands before a frozen one.
    mutable std::vector<std::string> calls;
    /// The number of the call that fails, counted from 1; 0 for none.
    int failingCall = 0;
    Failure failure = Failure::before;

    void startCounting(int failing = 0, Failure how = Failure::before) {
        calls.clear();
        failingCall = failing;
        failure = how;
    }
    bool hasFailed() const { return failingCall > 0 && std::ssize(calls) >= failingCall; }

    static void createDisk(const Path& image) { write(image, {{"size", 64}, {"data", JSON::object()}}); }
    static void guestWrites(const Path& image, const std::string& cluster, const std::string& value) {
        auto layer = read(image);
        layer["data"][cluster] = value;
        write(image, layer);
    }
    /// What a guest would read; throws where a layer is missing.
    static Content content(const Path& image) {
        const auto layer = read(image);
        Content all;
        if (layer.contains("backing")) all = content(resolved(image, layer["backing"]));
        for (const auto& [cluster, value] : layer["data"].items()) all[cluster] = value;
        std::erase_if(all, [](const auto& entry) { return entry.second.empty(); });
        return all;
    }

    std::optional<std::string> backingPath(const Path& image) const override {
        if (begin("info", image)) endMidway();
        const auto layer = read(image);
        if (!layer.contains("backing")) return std::nullopt;
        return layer["backing"].get<std::string>();
    }
    void createOverlay(const Path& overlay, const std::string& backing) const override {
        if (begin("create", overlay)) writeFileAtomically(overlay, std::string_view("QFI"));
        endMidway();
        content(resolved(overlay, backing));
        write(overlay, {{"backing", backing},
                        {"size", read(resolved(overlay, backing))["size"]},
                        {"data", JSON::object()}});
    }
    std::uint64_t virtualSize(const Path& image) const override {
        if (begin("info", image)) endMidway();
        return read(image)["size"].get<std::uint64_t>();
    }
    void createOverlayWithoutOpeningBacking(const Path& overlay, const std::string& backing,
                                            std::uint64_t size) const override {
        // Cut short, the real tool can leave an image that is whole but for its backing file.
        if (begin("create", overlay)) write(overlay, {{"size", size}, {"data", JSON::object()}});
        endMidway();
        write(overlay, {{"backing", backing}, {"size", size}, {"data", JSON::object()}});
    }
    void retargetBackingUnsafe(const Path& image, const std::optional<std::string>& backing) const override {
        const bool isCut = begin("retarget", image);
        auto layer = read(image);
        setBacking(layer, backing);
        write(image, layer);
        if (isCut) endMidway();
    }
    void rebase(const Path& image, const std::optional<std::string>& backing) const override {
        const bool isCut = begin("rebase", image);
        auto layer = read(image);
        auto visible = content(image);
        const auto below = backing ? content(resolved(image, *backing)) : Content();
        for (const auto& [cluster, value] : below)
            if (!visible.contains(cluster)) visible[cluster] = "";
        for (const auto& [cluster, value] : visible) {
            const auto found = below.find(cluster);
            if (found != below.end() && found->second == value) continue;
            layer["data"][cluster] = value;
            if (isCut) break;
        }
        // The real tool, too, rewrites the header before it is sure of the data.
        setBacking(layer, backing);
        write(image, layer);
        endMidway();
    }
    void commit(const Path& overlay) const override {
        const bool isCut = begin("commit", overlay);
        auto layer = read(overlay);
        const auto backing = resolved(overlay, layer.at("backing"));
        auto below = read(backing);
        for (const auto& [cluster, value] : layer["data"].items()) {
            below["data"][cluster] = value;
            if (isCut) break;
        }
        write(backing, below);
        endMidway();
        layer["data"] = JSON::object();
        write(overlay, layer);
    }
    void resize(const Path& image, std::uint64_t size) const override {
        if (begin("resize", image)) endMidway();
        auto layer = read(image);
        layer["size"] = size;
        write(image, layer);
    }

  private:
    static JSON read(const Path& image) {
        try {
            return parseJSON(readTextFile(image));
        } catch (const std::exception& error) {
            throw failed(error.what());
        }
    }
    static void write(const Path& image, const JSON& layer) { std::ofstream(image) << layer; }
    static Path resolved(const Path& image, const std::string& backing) {
        return image.parent_path() / backing;
    }
    static void setBacking(JSON& layer, const std::optional<std::string>& backing) {
        if (backing)
            layer["backing"] = *backing;
        else
            layer.erase("backing");
    }
    static DorvaneError failed(const std::string& words) {
        return DorvaneError(DorvaneError::Case::vmSnapshotFailed, "The disk image tool failed: " + words);
    }

    /// Returns whether this call has to stop in the middle.
    bool begin(const char* verb, const Path& image) const {
        const auto directory = image.parent_path().filename().string();
        calls.push_back(std::string(verb) + " " + (UUID::parse(directory) ? directory + "/" : "") +
                        image.filename().string());
        isCut_ = std::ssize(calls) == failingCall;
        if (isCut_ && failure == Failure::before) throw failed("told to");
        return isCut_;
    }
    void endMidway() const {
        if (isCut_) throw failed("told to stop midway");
    }

    mutable bool isCut_ = false;
};

}  // namespace dorvane::test
