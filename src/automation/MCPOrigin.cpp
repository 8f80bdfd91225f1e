// SPDX-License-Identifier: Apache-2.0
#include "automation/MCPOrigin.h"

#include <boost/url/parse.hpp>

namespace dorvane {

bool isAllowedMCPOrigin(std::string_view origin) {
    const auto url = boost::urls::parse_uri_reference({origin.data(), origin.size()});
    if (!url || !url->has_authority()) return false;
    const std::string_view host{url->encoded_host_address().data(), url->encoded_host_address().size()};
    return host == "127.0.0.1" || host == "localhost" || host == "::1";
}

}  // namespace dorvane
