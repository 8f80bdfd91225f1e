// SPDX-License-Identifier: Apache-2.0
// Lines of QMP as values. Wire format: "QEMU Machine Protocol Specification" in QEMU's documentation.
#pragma once

#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

#include "base/Bytes.h"
#include "qemu/QMPMessage.h"

namespace dorvane {

struct QMPCodec {
    class DecodeError : public std::runtime_error {
      public:
        enum class Case { notJSON, unrecognizedShape };
        explicit DecodeError(Case which);
        Case which() const { return which_; }

      private:
        Case which_;
    };

    /// A command as one JSON object and a line feed. Arguments that are null or an empty object are left out.
    static std::string encode(const std::string& command, const JSON& arguments,
                              const std::optional<std::string>& id);
    /// Reads one line, without its line feed. Throws DecodeError and nothing else. The first match decides:
    /// greeting, error, event, result. An array as result becomes the one member "_items".
    static QMPMessage decode(std::string_view line);
};

}  // namespace dorvane
