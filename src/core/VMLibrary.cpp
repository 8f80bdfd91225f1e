// SPDX-License-Identifier: Apache-2.0
#include "core/VMLibrary.h"

#include <algorithm>

#include "base/Localized.h"
#include "base/Text.h"
#include "core/DorvaneError.h"
#include "core/VMServiceLogger.h"

namespace dorvane {
void VMLibrary::sync() {
    if (context_ == nullptr) return;
    vms_ = context_->fetchRecords();
    published();
}

void VMLibrary::save() {
    if (context_ != nullptr) context_->save();
}

void VMLibrary::commit() {
    save();
    syncQuietly();
}

void VMLibrary::commitQuietly() {
    saveQuietly();
    syncQuietly();
}

void VMLibrary::saveQuietly() {
    try {
        save();
    } catch (const std::exception& error) {
        vmServiceLogger.error("Could not save the library: %{public}s", error.what());
    }
}

void VMLibrary::syncQuietly() {
    try {
        sync();
    } catch (const std::exception& error) {
        vmServiceLogger.error("Could not read the library: %{public}s", error.what());
    }
}

void VMLibrary::add(const VMRecordPointer& record) {
    insert(record);
    try {
        save();
    } catch (...) {
        if (context_ != nullptr) context_->remove(record);
        throw;
    }
    syncQuietly();
}

void VMLibrary::insert(const VMRecordPointer& record) {
    if (context_ != nullptr) context_->insert(record);
}

void VMLibrary::remove(const VMRecordPointer& record) {
    if (context_ == nullptr) return;
    for (const auto& snapshot : context_->fetchSnapshots(record->id)) context_->remove(snapshot);
    context_->remove(record);
}

VMRecordPointer VMLibrary::findPublished(const UUID& id) const {
    const auto found = std::find_if(vms_.begin(), vms_.end(),
                                    [&](const auto& vm) { return !vm->isDeleted && vm->id == id; });
    return found == vms_.end() ? nullptr : *found;
}

VMRecordPointer VMLibrary::find(const UUID& id) {
    if (auto vm = findPublished(id)) return vm;
    syncQuietly();
    return findPublished(id);
}

bool VMLibrary::isNameTaken(const std::string& name) const {
    return reservedNames_.contains(name) || std::any_of(vms_.begin(), vms_.end(), [&](const auto& vm) {
               return !vm->isDeleted && vm->name == name;
           });
}

bool VMLibrary::isNameTaken(const std::string& name, const VMRecord& byOtherThan) const {
    const auto wanted = lowercased(name);
    const auto isWanted = [&](const std::string& other) { return lowercased(other) == wanted; };
    return std::any_of(reservedNames_.begin(), reservedNames_.end(), isWanted) ||
           std::any_of(vms_.begin(), vms_.end(), [&](const auto& vm) {
               return !vm->isDeleted && vm->id != byOtherThan.id && isWanted(vm->name);
           });
}

VMLibrary::Reservation::Reservation(VMLibrary& library, std::string name, std::string directory)
    : library_(library), name_(std::move(name)), directory_(std::move(directory)) {
    if (library_.isNameTaken(name_)) {
        vmServiceLogger.info("A VM with name '%@' already exists", name_);
        throw DorvaneError(DorvaneError::Case::vmNameCollision, name_);
    }
    if (library_.isReserved(directory_))
        throw DorvaneError(DorvaneError::Case::vmCreationFailed,
                           localized("VM directory already exists at %@", directory_));
    library_.reservedNames_.insert(name_);
    library_.reservedDirectories_.insert(directory_);
}

VMLibrary::Reservation::~Reservation() {
    library_.reservedNames_.erase(name_);
    library_.reservedDirectories_.erase(directory_);
}

}  // namespace dorvane
