#include "platform/PropertyDictionary.hpp"

namespace velto::platform {

PropertyValue::PropertyValue(std::string text) : value_(std::move(text)) {}
PropertyValue::PropertyValue(const char* text) : value_(std::string(text)) {}
PropertyValue::PropertyValue(bool flag) : value_(flag) {}
PropertyValue::PropertyValue(List list) : value_(std::move(list)) {}

std::string PropertyValue::description(bool nested) const {
    if (const auto* text = string()) return nested ? "\"" + *text + "\"" : *text;
    if (const auto* flag = boolean()) return *flag ? "true" : "false";
    std::string out = "[";
    const auto& items = *list();
    for (std::size_t i = 0; i < items.size(); ++i) {
        if (i > 0) out += ", ";
        out += items[i].description();
    }
    return out + "]";
}

bool operator==(const PropertyValue& a, const PropertyValue& b) { return a.value_ == b.value_; }

PropertyDictionary::PropertyDictionary(std::initializer_list<Entry> entries) {
    for (const auto& entry : entries) set(entry.first, entry.second);
}

void PropertyDictionary::set(std::string key, PropertyValue value) {
    for (auto& entry : entries_) {
        if (entry.first == key) {
            entry.second = std::move(value);
            return;
        }
    }
    entries_.emplace_back(std::move(key), std::move(value));
}

const PropertyValue* PropertyDictionary::find(std::string_view key) const {
    for (const auto& entry : entries_) {
        if (entry.first == key) return &entry.second;
    }
    return nullptr;
}

std::optional<std::string> PropertyDictionary::string(std::string_view key) const {
    const auto* value = find(key);
    if (value == nullptr || value->string() == nullptr) return std::nullopt;
    return *value->string();
}

std::optional<bool> PropertyDictionary::boolean(std::string_view key) const {
    const auto* value = find(key);
    if (value == nullptr || value->boolean() == nullptr) return std::nullopt;
    return *value->boolean();
}

std::string PropertyDictionary::description() const {
    if (entries_.empty()) return "[:]";
    std::string out = "[";
    for (std::size_t i = 0; i < entries_.size(); ++i) {
        if (i > 0) out += ", ";
        out += "\"" + entries_[i].first + "\": " + entries_[i].second.description(true);
    }
    return out + "]";
}

bool operator==(const PropertyDictionary& a, const PropertyDictionary& b) { return a.entries_ == b.entries_; }

}  // namespace velto::platform
