// SPDX-License-Identifier: Apache-2.0
#include "core/VMOperationGate.h"

#include "core/DorvaneError.h"

namespace dorvane {

void VMOperationGate::begin(const UUID& vmID, const std::string& vmName) {
    requireFree(vmID, vmName);
    busyVMIDs_.insert(vmID);
    changed();
}

void VMOperationGate::end(const UUID& vmID) {
    if (busyVMIDs_.erase(vmID) > 0) changed();
}

void VMOperationGate::requireFree(const UUID& vmID, const std::string& vmName) const {
    if (isBusy(vmID)) throw DorvaneError(DorvaneError::Case::vmBusy, vmName);
}

}  // namespace dorvane
