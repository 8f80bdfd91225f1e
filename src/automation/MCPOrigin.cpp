// SPDX-License-Identifier: Apache-2.0
#include "automation/MCPOrigin.h"

#include <boost/url/parse.hpp>

namespace dorvane {

bool isAllowedMCPOrigin(std::string_view origin) {
    const auto url = boost::urls::parse_uri_reference({origin.data(), origin.size()});
    if (!url || !url->has_authority()) return false;
    // The library ends the host of "http://127.0.0.1.example.org" behind the address and calls the rest a
    // path.
    const std::string_view path{url->encoded_path().data(), url->encoded_path().size()};
    if (!path.empty() && !path.starts_with('/')) return false;
    const std::string_view host{url->encoded_host_address().data(), url->encoded_host_address().size()};
    return host == "127.0.0.1" || host == "localhost" || host == "::1";
}

}  // namespace dorvane
