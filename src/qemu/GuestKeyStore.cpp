// SPDX-License-Identifier: Apache-2.0
#include "qemu/GuestKeyStore.h"

#include "base/Text.h"
#include "core/DorvaneError.h"

namespace dorvane {
namespace {

namespace fs = std::filesystem;

struct KeyFiles {
    Path privateKey, publicKey;

    explicit KeyFiles(const Path& directory)
        : privateKey(directory / "id_ed25519"), publicKey(directory / "id_ed25519.pub") {}
    bool areComplete() const { return fs::exists(privateKey) && fs::exists(publicKey); }
    void remove() const {
        fs::remove(privateKey);
        fs::remove(publicKey);
    }
    GuestKeyPair read() const {
        constexpr std::size_t limit = 65536;
        return {privateKey, std::string(trimmed(readTextFile(publicKey, limit)))};
    }
};

}  // namespace

Task<GuestKeyPair> GuestKeyStore::keyPair(UUID id) const {
    const KeyFiles files(directory(id));
    fs::create_directories(directory(id));
    if (!files.areComplete()) {
        files.remove();
        co_await generate(id, files.privateKey);
        if (!files.areComplete())
            throw DorvaneError(DorvaneError::Case::vmStartupFailed,
                               localized("Could not create an SSH key for this VM."));
        fs::permissions(files.privateKey, fs::perms::owner_read | fs::perms::owner_write);
        logger_.info("Generated guest SSH key for %{public}s", id.text());
    }
    co_return files.read();
}

Task<void> GuestKeyStore::generate(UUID id, Path privateKey) const {
    ProcessCommand command;
    command.executable = keygen_;
    command.arguments = {"-t", "ed25519", "-N", "", "-C", "dorvane-" + id.text(), "-f", privateKey.string()};
    std::string words;
    try {
        const auto output = co_await runProcess(runtime_, std::move(command));
        if (output.status.isSuccess()) co_return;
        words = trimmed(repairedUTF8(output.standardError));
    } catch (const POSIXError& error) {
        words = error.what();
    }
    throw DorvaneError(DorvaneError::Case::vmStartupFailed,
                       localized("Could not create an SSH key for this VM: %@", words));
}

}  // namespace dorvane
