// SPDX-License-Identifier: Apache-2.0
#include "qemu/QEMUImageTool.h"

#include "core/DorvaneError.h"
#include "runtime/ChildProcess.h"

namespace dorvane {

void QEMUImageTool::run(const Path& tool, std::vector<std::string> arguments,
                        const std::string& failureReason) {
    ProcessCommand command{tool, std::move(arguments)};
    command.standardError = StandardStream::inherit;
    if (!ChildProcess::start(command)->waitBlocking().isSuccess())
        throw DorvaneError(DorvaneError::Case::vmCreationFailed, failureReason);
}

}  // namespace dorvane
