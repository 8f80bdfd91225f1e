// SPDX-License-Identifier: Apache-2.0
#include "snapshots/FakeChainTool.h"

namespace dorvane::test {

void FakeChainTool::startCounting(int failing, Failure how) {
    calls.clear();
    failingCall = failing;
    failure = how;
}

void FakeChainTool::guestWrites(const Path& image, const std::string& cluster, const std::string& value) {
    auto layer = read(image);
    layer["data"][cluster] = value;
    write(image, layer);
}

FakeChainTool::Content FakeChainTool::content(const Path& image) {
    const auto layer = read(image);
    Content all;
    if (layer.contains("backing")) all = content(resolved(image, layer["backing"]));
    for (const auto& [cluster, value] : layer["data"].items()) all[cluster] = value;
    std::erase_if(all, [](const auto& entry) { return entry.second.empty(); });
    return all;
}

std::optional<std::string> FakeChainTool::backingPath(const Path& image) const {
    if (begin("info", image)) endMidway();
    const auto layer = read(image);
    if (!layer.contains("backing")) return std::nullopt;
    return layer["backing"].get<std::string>();
}

void FakeChainTool::createOverlay(const Path& overlay, const std::string& backing) const {
    if (begin("create", overlay)) writeFileAtomically(overlay, "QFI");
    endMidway();
    content(resolved(overlay, backing));
    write(
        overlay,
        {{"backing", backing}, {"size", read(resolved(overlay, backing))["size"]}, {"data", JSON::object()}});
}

std::uint64_t FakeChainTool::virtualSize(const Path& image) const {
    if (begin("info", image)) endMidway();
    return read(image)["size"].get<std::uint64_t>();
}

void FakeChainTool::createOverlayWithoutOpeningBacking(const Path& overlay, const std::string& backing,
                                                       std::uint64_t size) const {
    // Cut short, the real tool can leave an image that is whole but for its backing file.
    if (begin("create", overlay)) write(overlay, {{"size", size}, {"data", JSON::object()}});
    endMidway();
    write(overlay, {{"backing", backing}, {"size", size}, {"data", JSON::object()}});
}

void FakeChainTool::retargetBackingUnsafe(const Path& image,
                                          const std::optional<std::string>& backing) const {
    begin("retarget", image);
    auto layer = read(image);
    setBacking(layer, backing);
    write(image, layer);
    endMidway();
}

void FakeChainTool::rebase(const Path& image, const std::optional<std::string>& backing) const {
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

void FakeChainTool::commit(const Path& overlay) const {
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

JSON FakeChainTool::read(const Path& image) {
    try {
        return parseJSON(readTextFile(image));
    } catch (const std::exception& error) {
        throw failed(error.what());
    }
}

void FakeChainTool::setBacking(JSON& layer, const std::optional<std::string>& backing) {
    if (backing)
        layer["backing"] = *backing;
    else
        layer.erase("backing");
}

bool FakeChainTool::begin(const char* verb, const Path& image) const {
    const auto directory = image.parent_path().filename().string();
    calls.push_back(std::string(verb) + " " + (UUID::parse(directory) ? directory + "/" : "") +
                    image.filename().string());
    isCut_ = std::ssize(calls) == failingCall;
    if (isCut_ && failure == Failure::before) throw failed("told to");
    return isCut_;
}

}  // namespace dorvane::test
