// SPDX-License-Identifier: Apache-2.0
#include "core/application/QuitFlow.h"

#include "base/Localized.h"
#include "base/Text.h"

namespace dorvane {
namespace {

constexpr auto shutdownTimeout = seconds(30.0);

}  // namespace

std::string listText(const std::vector<std::string>& items) {
    if (items.size() < 3) return joined(items, " and ");
    const std::vector<std::string> first(items.begin(), items.end() - 1);
    return joined(first, ", ") + ", and " + items.back();
}

std::vector<std::string> QuitFlow::labels() const {
    std::vector<std::string> labels;
    for (const auto& [id, label] : operations_.active()) labels.push_back(label);
    std::ranges::sort(labels);
    if (!gate_.busyVMIDs().empty()) labels.push_back(localized("A snapshot, clone, backup or suspend"));
    return labels;
}

std::optional<QuitQuestion> QuitFlow::question() const {
    const auto inProgress = labels();
    const bool running = engine_.hasRunningVMs();
    if (!running && inProgress.empty()) return std::nullopt;
    std::vector<std::string> paragraphs;
    if (!inProgress.empty())
        paragraphs.push_back(
            localized("Still in progress: %@. Quitting now interrupts it, and what it has not "
                      "finished is discarded.",
                      listText(inProgress)));
    if (running)
        paragraphs.push_back(
            localized("Quitting will stop %d running virtual machine(s).", engine_.runningVMIDs().size()));
    return QuitQuestion{localized("Quit Dorvane?"), joined(paragraphs, "\n\n"),
                        running ? localized("Stop VMs and Quit") : localized("Quit Anyway"), running};
}

QuitFlow::Reply QuitFlow::shouldTerminate(const std::function<bool(const QuitQuestion&)>& confirm) const {
    const auto asked = question();
    if (!asked) return Reply::now;
    if (!confirm(*asked)) return Reply::cancel;
    return asked->stopsMachines ? Reply::later : Reply::now;
}

Task<void> QuitFlow::stopAllVMs() const { co_await engine_.shutdownAll(shutdownTimeout); }

}  // namespace dorvane
