// SPDX-License-Identifier: Apache-2.0
// Between the product's own command line and the QEMU that runs on this host.
#pragma once

#include <string>
#include <vector>

#include "qemu/QEMUCapabilities.h"

namespace dorvane {

/// A pure translation, applied to the vector of QEMUCommandBuilder before anything else sees it: the
/// fingerprint of a suspended machine is taken from what comes out. The stored machine description is never
/// changed by it.
class QEMUHostAdapter {
  public:
    virtual ~QEMUHostAdapter() = default;

    /// The same inputs give the same vector. `arguments` come without the executable's name in front.
    virtual std::vector<std::string> adapt(std::vector<std::string> arguments,
                                           const QEMUCapabilities& capabilities) const = 0;
    /// Whether `adapt` looks at the capabilities at all; when not, the binary need not be asked for them.
    virtual bool needsCapabilities() const { return true; }
};

/// For the host that the command line is written for.
class IdentityHostAdapter : public QEMUHostAdapter {
  public:
    std::vector<std::string> adapt(std::vector<std::string> arguments,
                                   const QEMUCapabilities&) const override {
        return arguments;
    }
    bool needsCapabilities() const override { return false; }
};

}  // namespace dorvane
