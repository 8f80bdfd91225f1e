// SPDX-License-Identifier: Apache-2.0
#include "display/rfb/RFBConnectionError.h"

#include "base/Localized.h"

namespace dorvane {

RFBConnectionError RFBConnectionError::socketPathTooLong(const std::string& path, std::size_t limit) {
    return {Case::socketPathTooLong,
            localized("The VM display socket path is too long (%lld bytes, limit %lld): %@", path.size(),
                      limit, path)};
}

RFBConnectionError RFBConnectionError::socketUnavailable(const std::string& path) {
    return {Case::socketUnavailable, localized("Could not connect to the VM display at %@.", path)};
}

RFBConnectionError RFBConnectionError::handshakeFailed(const std::string& text) {
    return {Case::handshakeFailed, localized("The VM display connection could not be established. %@", text)};
}

RFBConnectionError RFBConnectionError::connectionClosed() {
    return {Case::connectionClosed, localized("The VM display connection was closed.")};
}

}  // namespace dorvane
