// SPDX-License-Identifier: Apache-2.0
// Help texts of a binary that need not be QEMU: one text after the other, separated by NUL bytes.
#include <array>
#include <cstdlib>

#include "base/Text.h"
#include "qemu/QEMUCapabilities.h"
#include "qemu/QEMUMachineVersion.h"

using namespace dorvane;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    auto pieces = split(asText({data, size}), '\0');
    constexpr std::array fields{
        &QEMUHelpTexts::version,      &QEMUHelpTexts::machines, &QEMUHelpTexts::machineProperties,
        &QEMUHelpTexts::accelerators, &QEMUHelpTexts::displays, &QEMUHelpTexts::audioDrivers,
        &QEMUHelpTexts::devices};
    pieces.resize(fields.size() + 1);
    QEMUHelpTexts texts;
    for (std::size_t i = 0; i < fields.size(); ++i) texts.*fields[i] = pieces[i];
    texts.deviceProperties["device"] = pieces.back();
    const auto found = QEMUCapabilities::parse(texts);
    for (const auto& type : found.machineTypes)
        if (!QEMUMachineVersion::parse(type)) std::abort();
    found.mayHaveProperty("device", "ppi");
    return 0;
}
