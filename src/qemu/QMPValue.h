// SPDX-License-Identifier: Apache-2.0
// The values that QEMU's machine protocol (QMP) carries.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "base/JSON.h"

namespace dorvane {

class QMPValue;
using QMPObject = std::map<std::string, QMPValue>;
using QMPArray = std::vector<QMPValue>;

/// A plain value, compared by kind and content. A boolean is never read as an integer nor the other way
/// round.
class QMPValue {
  public:
    enum class Kind { string, integer, boolean, object, array, null };

    QMPValue(std::nullptr_t = nullptr);
    QMPValue(std::string text);
    QMPValue(const char* text);
    QMPValue(std::int64_t number);
    QMPValue(int number);
    QMPValue(bool boolean);
    QMPValue(QMPObject object);
    QMPValue(QMPArray array);

    /// Numbers become integers by truncation; one beyond the range becomes the nearest end of it.
    static QMPValue fromJSON(const JSON& value);
    /// The members of a JSON object; empty for anything else.
    static QMPObject objectFromJSON(const JSON& value);

    Kind kind() const { return static_cast<Kind>(value_.index()); }
    /// The content when it is of that kind, else null or absent. Pointers live as long as this value.
    const std::string* string() const { return std::get_if<std::string>(&value_); }
    std::optional<std::int64_t> integer() const;
    std::optional<bool> boolean() const;
    const QMPObject* object() const { return std::get_if<QMPObject>(&value_); }
    const QMPArray* array() const { return std::get_if<QMPArray>(&value_); }

    /// The member of an object; null when this is no object or has no such member.
    const QMPValue* member(const std::string& key) const;

    bool operator==(const QMPValue& other) const;

  private:
    std::variant<std::string, std::int64_t, bool, QMPObject, QMPArray, std::nullptr_t> value_;
};

/// The member of that name, or null.
const QMPValue* findMember(const QMPObject& object, const std::string& key);

}  // namespace dorvane
