// SPDX-License-Identifier: Apache-2.0
#include "automation/MCPCallSummary.h"

#include <map>

#include "base/Text.h"

namespace dorvane {

std::string mcpCallSummary(std::string_view tool, const MCPToolArguments& arguments) {
    static const std::map<std::string_view, const char*> keys{{"exec_shell", "command"},
                                                              {"take_snapshot", "name"},
                                                              {"restore_snapshot", "snapshot"},
                                                              {"clone_vm", "network"}};
    if (const auto key = keys.find(tool); key != keys.end()) return arguments.text(key->second).value_or("");
    if (tool == "stop_vm") return arguments.isTrue("force") ? "force" : "";
    if (tool != "create_vm") return "";
    std::vector<std::string> parts;
    for (const auto* key : {"name", "os"})
        if (auto part = arguments.text(key)) parts.push_back(*std::move(part));
    return joined(parts, " · ");
}

}  // namespace dorvane
