// SPDX-License-Identifier: Apache-2.0
// Turns a record into what one launch attaches.
#pragma once

#include "core/GuestAgentPayloadStaging.h"
#include "core/VMEngineProtocol.h"

namespace dorvane {

/// Blocking and safe on any thread: it asks the file system about every path.
class VMAttachmentsBuilder {
  public:
    /// `agentPayload` is null where there is no guest agent to offer.
    explicit VMAttachmentsBuilder(const GuestAgentPayloadStaging* agentPayload)
        : agentPayload_(agentPayload) {}

    /// Throws invalidConfiguration with the first path that isn't there.
    VMAttachments attachments(const VMRecordFields& vm) const;

  private:
    std::optional<std::string> stagedAgentPayload(const VMRecordFields& vm) const;

    const GuestAgentPayloadStaging* agentPayload_;
};

}  // namespace dorvane
