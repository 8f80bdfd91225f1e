// SPDX-License-Identifier: Apache-2.0
// The JSON form of the rows in the library's store. Keys are the fields' names, dates are microseconds since
// 1970, bytes are base64 and absent fields are left out, so that a field added later needs no migration.
#pragma once

#include "core/VMRecord.h"
#include "core/VMSnapshot.h"

namespace dorvane {

JSON encodeRow(const VMRecordFields& fields);
JSON encodeRow(const VMSnapshotFields& fields);

/// Both throw JSONError.
void decodeRow(const JSON& body, VMRecordFields& fields);
void decodeRow(const JSON& body, VMSnapshotFields& fields);

}  // namespace dorvane
