// SPDX-License-Identifier: Apache-2.0
// The digest of a QEMU binary, taken once for each file.
#pragma once

#include <map>
#include <tuple>

#include "runtime/Event.h"
#include "runtime/Files.h"
#include "runtime/Runtime.h"

namespace dorvane {

/// Main thread. Keyed by path, inode, size and modification time, so that a replaced binary is read anew;
/// one that couldn't be read is tried again.
class QEMUEngineDigestCache {
  public:
    /// A digest that may still be on its way. Copies share it.
    class Digest {
      public:
        /// What QEMUSuspendFingerprint::engineDigest gives.
        Task<std::string> value() const;

      private:
        friend class QEMUEngineDigestCache;
        bool isUnreadable() const;
        struct State {
            std::string text;  // written before `isKnown` is set
            Event isKnown;
        };
        std::shared_ptr<State> state_ = std::make_shared<State>();
    };

    explicit QEMUEngineDigestCache(const Runtime& runtime) : runtime_(runtime) {}

    /// Begins reading on the background pool unless this very file is known, and returns at once.
    Digest digest(const Path& executable);

  private:
    using Key = std::tuple<Path, std::uint64_t, std::int64_t, std::int64_t, std::int64_t>;

    const Runtime& runtime_;
    std::map<Key, Digest> known_;
};

}  // namespace dorvane
