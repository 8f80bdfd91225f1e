// SPDX-License-Identifier: Apache-2.0
#include "qemu/QEMUImageConverter.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <charconv>

#include "base/Localized.h"
#include "base/Text.h"
#include "core/DorvaneError.h"
#include "runtime/ChildProcess.h"
#include "runtime/ReadSource.h"
#include "runtime/Sockets.h"

namespace dorvane {
namespace {

constexpr std::size_t outputChunkBytes = 8192;
/// The tool's own words are a line or two; more than this is not shown to anybody.
constexpr std::size_t maximumErrorBytes = 65536;

DorvaneError conversionFailed(const std::string& reason) {
    return DorvaneError(DorvaneError::Case::vmImportFailed, reason);
}

/// Reads the tool's two outputs while it runs; lives on its queue.
class OutputReader : public std::enable_shared_from_this<OutputReader> {
  public:
    OutputReader(const Runtime& runtime, QEMUImageConverter::Progress progress)
        : queue_(runtime.makeQueue("com.dorvane.app.image-converter")), progress_(std::move(progress)) {}

    void start(ChildProcess& child) {
        auto output = std::make_shared<FileDescriptor>(child.takeStandardOutput());
        auto error = std::make_shared<FileDescriptor>(child.takeStandardError());
        setNonBlocking(output->get(), true);
        setNonBlocking(error->get(), true);
        queue_.async([self = shared_from_this(), output, error] {
            self->output_ = self->watch(std::move(*output), &OutputReader::readOutput);
            self->error_ = self->watch(std::move(*error), &OutputReader::readError);
        });
    }

    /// Reads what remains and stops; returns the error output's text.
    Task<std::string> finish() {
        const OneShot<std::string> text;
        queue_.async([self = shared_from_this(), text] {
            while (self->output_ && self->readOutput()) {
            }
            while (self->error_ && self->readError()) {
            }
            self->output_.reset();
            self->error_.reset();
            text.succeed(repairedUTF8(self->errorBytes_));
        });
        co_return co_await text.wait();
    }

  private:
    using Step = bool (OutputReader::*)();

    std::unique_ptr<ReadSource> watch(FileDescriptor fd, Step step) {
        return std::make_unique<ReadSource>(queue_, std::move(fd), [weak = weak_from_this(), step] {
            if (const auto self = weak.lock()) (self.get()->*step)();
        });
    }

    /// Both say whether more may follow; at the end of a stream its source stops.
    bool readOutput() {
        const auto chunk = read(output_);
        const auto value = QEMUImageConverter::lastProgress(asText(chunk));
        if (value && progress_) progress_(*value);
        return !chunk.empty();
    }
    bool readError() {
        const auto chunk = read(error_);
        const auto room = maximumErrorBytes - errorBytes_.size();
        errorBytes_.insert(errorBytes_.end(), chunk.begin(),
                           chunk.begin() + static_cast<std::ptrdiff_t>(std::min(room, chunk.size())));
        return !chunk.empty();
    }

    static Bytes read(std::unique_ptr<ReadSource>& source) {
        Bytes chunk(outputChunkBytes);
        const auto count = ::read(source->descriptor(), chunk.data(), chunk.size());
        if (count == 0) source.reset();
        chunk.resize(static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
        return chunk;
    }

    SerialQueue queue_;
    QEMUImageConverter::Progress progress_;
    std::unique_ptr<ReadSource> output_, error_;
    Bytes errorBytes_;
};

/// Waits for the tool; a cancellation ends it and its reader first.
Task<ExitStatus> waitEndingOnCancellation(const Runtime& runtime, std::shared_ptr<ChildProcess> child,
                                          std::shared_ptr<OutputReader> reader) {
    constexpr auto killDelay = seconds(2);
    try {
        co_return co_await child->wait();
    } catch (const CancellationError&) {
        // Acted upon below.
    }
    child->terminate();
    const auto deadline = runtime.clock.schedule(runtime.io, killDelay, [child] { child->kill(); });
    co_await ignoreCancellation();
    co_await child->wait();
    // What it reads from may go only on its queue.
    co_await reader->finish();
    throw CancellationError();
}

std::optional<double> percentBefore(std::string_view text) {
    const auto open = text.find_last_not_of("0123456789.");
    if (open == std::string_view::npos || text[open] != '(') return std::nullopt;
    const auto digits = text.substr(open + 1);
    if (digits.empty() || digits.front() == '.' || digits.back() == '.') return std::nullopt;
    double value = 0;
    const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), value);
    if (error != std::errc() || end != digits.data() + digits.size()) return std::nullopt;
    return value;
}

}  // namespace

std::optional<double> QEMUImageConverter::lastProgress(std::string_view output) {
    constexpr std::string_view tail = "/100%)";
    for (auto at = output.rfind(tail); at != std::string_view::npos && at > 0;
         at = output.rfind(tail, at - 1))
        if (const auto percent = percentBefore(output.substr(0, at)))
            return std::clamp(*percent / 100, 0.0, 1.0);
    return std::nullopt;
}

Task<void> QEMUImageConverter::convertToQcow2(const Runtime& runtime, Path tool, Path source,
                                              std::string sourceFormat, Path destination, Progress progress) {
    if (!std::filesystem::exists(tool))
        throw conversionFailed(localized("The disk image tool is missing from this build."));
    ProcessCommand command{tool};
    command.arguments = {"convert",           "-p", "-f", sourceFormat, "-O", "qcow2", source.string(),
                         destination.string()};
    command.standardOutput = command.standardError = StandardStream::pipe;
    const auto child = ChildProcess::start(command);
    const auto reader = std::make_shared<OutputReader>(runtime, std::move(progress));
    reader->start(*child);
    const auto status = co_await waitEndingOnCancellation(runtime, child, reader);
    const auto errorOutput = co_await reader->finish();
    if (status.isSuccess()) co_return;
    if (status.wasSignaled()) throw CancellationError();
    const std::string words(trimmed(errorOutput));
    throw conversionFailed(
        words.empty() ? localized("The disk conversion exited with status %d.", status.code) : words);
}

}  // namespace dorvane
