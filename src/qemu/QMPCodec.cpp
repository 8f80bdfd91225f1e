// SPDX-License-Identifier: Apache-2.0
#include "qemu/QMPCodec.h"

#include "base/Localized.h"

namespace dorvane {
namespace {

const JSON* objectMember(const JSON& object, const char* key) {
    const auto found = object.find(key);
    return found != object.end() && found->is_object() ? &*found : nullptr;
}

std::optional<std::string> textMember(const JSON& object, const char* key) {
    const auto found = object.find(key);
    if (found == object.end() || !found->is_string()) return std::nullopt;
    return found->get<std::string>();
}

std::string versionText(const JSON& greeting) {
    const auto* version = objectMember(greeting, "version");
    const auto* numbers = version != nullptr ? objectMember(*version, "qemu") : nullptr;
    if (numbers == nullptr) return "unknown";
    const auto number = [numbers](const char* key) {
        const auto found = numbers->find(key);
        return found != numbers->end() ? QMPValue::fromJSON(*found).integer().value_or(0) : 0;
    };
    return formatted("%lld.%lld.%lld", number("major"), number("minor"), number("micro"));
}

QMPObject payloadOf(const JSON& answer) {
    if (answer.is_array()) return {{"_items", QMPValue::fromJSON(answer)}};
    return QMPValue::objectFromJSON(answer);
}

JSON parseObject(std::string_view line) {
    try {
        auto value = parseJSON(line);
        if (value.is_object()) return value;
    } catch (const JSONError&) {
        // Told below, as for a value that is no object.
    }
    throw QMPCodec::DecodeError(QMPCodec::DecodeError::Case::notJSON);
}

}  // namespace

QMPCodec::DecodeError::DecodeError(Case which)
    : std::runtime_error(which == Case::notJSON ? "The line is not a JSON object."
                                                : "The line is no message of the machine protocol."),
      which_(which) {}

std::string QMPCodec::encode(const std::string& command, const JSON& arguments,
                             const std::optional<std::string>& id) {
    auto line = JSON::object();
    line["execute"] = command;
    if (!arguments.empty()) line["arguments"] = arguments;
    putOptional(line, "id", id);
    return compactJSON(line) + '\n';
}

QMPMessage QMPCodec::decode(std::string_view line) {
    const auto object = parseObject(line);
    if (const auto* greeting = objectMember(object, "QMP"))
        return {QMPMessage::Greeting{versionText(*greeting)}};
    const auto id = textMember(object, "id");
    if (const auto* error = objectMember(object, "error"))
        return {QMPMessage::Error{id, textMember(*error, "class").value_or("GenericError"),
                                  textMember(*error, "desc").value_or("Unknown QMP error")}};
    if (auto name = textMember(object, "event")) {
        const auto data = object.find("data");
        return {
            QMPMessage::Event{*name, data != object.end() ? QMPValue::objectFromJSON(*data) : QMPObject{}}};
    }
    if (const auto answer = object.find("return"); answer != object.end())
        return {QMPMessage::Result{id, payloadOf(*answer)}};
    throw DecodeError(DecodeError::Case::unrecognizedShape);
}

}  // namespace dorvane
