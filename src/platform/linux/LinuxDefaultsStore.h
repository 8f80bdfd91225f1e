// SPDX-License-Identifier: Apache-2.0
// The user's settings in one JSON file.
#pragma once

#include <mutex>

#include "platform/DefaultsStore.h"
#include "runtime/Files.h"
#include "runtime/Logger.h"

namespace dorvane {

/// The file is read once, here, and written whole at each change. It belongs to one process: changes that
/// another one makes are not seen. Only the user may read it.
///
/// A file that is no JSON object is set aside under another name and the store begins empty; a file that
/// can't be read at all stays where it is, and every `set` throws until the next start.
class LinuxDefaultsStore : public DefaultsStore {
  public:
    /// `file` need not exist, nor its directory. Never throws.
    explicit LinuxDefaultsStore(Path file);

    JSON value(const std::string& key) const override;
    void set(const std::string& key, JSON value) override;
    std::vector<std::string> keys() const override;

    /// What went wrong with the stored settings at start, as a sentence for the user.
    const std::optional<std::string>& problem() const { return problem_; }

  private:
    void load();
    void refuse(int number);
    void startOver(const std::string& reason);

    Path file_;
    Logger logger_{"DefaultsStore"};
    mutable std::mutex mutex_;
    JSON values_ = JSON::object();
    int loadError_ = 0;  // errno of a file that is there but could not be read
    std::optional<std::string> problem_;
};

}  // namespace dorvane
