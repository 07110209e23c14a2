#pragma once
// A small ordered dictionary of strings, booleans and lists of dictionaries: the
// description of an aggregate device. Entries keep the order in which they were set,
// which is the order they are logged in.

#include <optional>
#include <string>
#include <utility>
#include <variant>
#include <vector>

namespace velto::platform {

class PropertyDictionary;

class PropertyValue {
public:
    using List = std::vector<PropertyDictionary>;

    PropertyValue(std::string text);
    PropertyValue(const char* text);
    PropertyValue(bool flag);
    PropertyValue(List list);

    const std::string* string() const { return std::get_if<std::string>(&value_); }
    const bool* boolean() const { return std::get_if<bool>(&value_); }
    const List* list() const { return std::get_if<List>(&value_); }

    // Strings bare at the top level, quoted inside lists: `["uid": "x", "drift": true]`.
    std::string description(bool nested = false) const;

    friend bool operator==(const PropertyValue&, const PropertyValue&);

private:
    std::variant<std::string, bool, List> value_;
};

class PropertyDictionary {
public:
    using Entry = std::pair<std::string, PropertyValue>;

    PropertyDictionary() = default;
    PropertyDictionary(std::initializer_list<Entry> entries);

    // Replaces the value of an existing key in place, otherwise appends.
    void set(std::string key, PropertyValue value);
    const PropertyValue* find(std::string_view key) const;
    std::optional<std::string> string(std::string_view key) const;
    std::optional<bool> boolean(std::string_view key) const;

    const std::vector<Entry>& entries() const { return entries_; }
    bool empty() const { return entries_.empty(); }
    std::string description() const;

    friend bool operator==(const PropertyDictionary&, const PropertyDictionary&);

private:
    std::vector<Entry> entries_;
};

}  // namespace velto::platform
