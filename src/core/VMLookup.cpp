// SPDX-License-Identifier: Apache-2.0
#include "core/VMLookup.h"

#include "base/Text.h"

namespace dorvane {
namespace {

template <typename Matches>
VMRecordPointer firstWhere(const std::vector<VMRecordPointer>& vms, Matches matches) {
    const auto found = std::ranges::find_if(vms, [&](const auto& vm) { return matches(*vm); });
    return found == vms.end() ? nullptr : *found;
}

}  // namespace

VMRecordPointer findVM(const std::vector<VMRecordPointer>& vms, std::string_view nameOrID) {
    if (const auto id = UUID::parse(nameOrID))
        if (auto vm = firstWhere(vms, [&](const VMRecord& record) { return record.id == *id; })) return vm;
    if (auto vm = firstWhere(vms, [&](const VMRecord& record) { return record.name == nameOrID; })) return vm;
    const auto folded = lowercased(nameOrID);
    return firstWhere(vms, [&](const VMRecord& record) { return lowercased(record.name) == folded; });
}

}  // namespace dorvane
