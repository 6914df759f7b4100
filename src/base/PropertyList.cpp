#include "base/PropertyList.h"

#include "base/FileUtil.h"

#include <plist/plist.h>

#include <cctype>
#include <cstdio>
#include <cstdlib>

struct PropertyList::Node {
    explicit Node(plist_t p) : plist(p) {}
    ~Node() { plist_free(plist); }
    Node(const Node&) = delete;
    Node& operator=(const Node&) = delete;
    plist_t plist;
};

namespace {
// Property lists the patcher reads are small; anything larger is not one of ours.
constexpr size_t kMaxPlistBytes = 16 * 1024 * 1024;
} // namespace

std::optional<PropertyList> PropertyList::readDictionaryFromMemory(const std::string& data) {
    if (data.empty() || data.size() > kMaxPlistBytes)
        return std::nullopt;
    plist_t plist = nullptr;
    plist_from_memory(data.data(), static_cast<uint32_t>(data.size()), &plist);
    if (!plist)
        return std::nullopt;
    auto node = std::make_shared<Node>(plist);
    if (plist_get_node_type(plist) != PLIST_DICT)
        return std::nullopt;
    return PropertyList(std::move(node));
}

std::optional<PropertyList> PropertyList::readDictionaryFromFile(const std::string& path) {
    auto data = ReadFileText(path, kMaxPlistBytes);
    if (!data)
        return std::nullopt;
    return readDictionaryFromMemory(*data);
}

bool PropertyList::hasKey(const std::string& key) const {
    return plist_dict_get_item(_root->plist, key.c_str()) != nullptr;
}

std::optional<std::string> PropertyList::stringForKey(const std::string& key) const {
    plist_t item = plist_dict_get_item(_root->plist, key.c_str());
    if (!item)
        return std::nullopt;
    switch (plist_get_node_type(item)) {
    case PLIST_STRING: {
        char* value = nullptr;
        plist_get_string_val(item, &value);
        if (!value)
            return std::nullopt;
        std::string text(value);
        std::free(value);
        return text;
    }
    case PLIST_UINT: {
        uint64_t value = 0;
        plist_get_uint_val(item, &value);
        return std::to_string(value);
    }
    case PLIST_BOOLEAN: {
        uint8_t value = 0;
        plist_get_bool_val(item, &value);
        return value ? "1" : "0";
    }
    case PLIST_REAL: {
        double value = 0;
        plist_get_real_val(item, &value);
        char buffer[64];
        std::snprintf(buffer, sizeof buffer, "%g", value);
        return std::string(buffer);
    }
    case PLIST_DATE: {
        int32_t sec = 0;
        int32_t usec = 0;
        plist_get_date_val(item, &sec, &usec);
        return std::to_string(sec);
    }
    default:
        return std::nullopt;
    }
}

std::vector<std::string> PropertyList::keys() const {
    std::vector<std::string> result;
    plist_dict_iter iter = nullptr;
    plist_dict_new_iter(_root->plist, &iter);
    if (!iter)
        return result;
    for (;;) {
        char* key = nullptr;
        plist_t value = nullptr;
        plist_dict_next_item(_root->plist, iter, &key, &value);
        if (!key)
            break;
        result.emplace_back(key);
        std::free(key);
    }
    std::free(iter);
    return result;
}

namespace {

std::string Quoted(const std::string& text) {
    bool plain = !text.empty();
    for (unsigned char c : text) {
        if (!(std::isalnum(c) || c == '_' || c == '$' || c == '.' || c == '/' || c == ':'))
            plain = false;
    }
    if (plain)
        return text;
    std::string quoted = "\"";
    for (char c : text) {
        if (c == '"' || c == '\\')
            quoted += '\\';
        quoted += c;
    }
    return quoted + "\"";
}

} // namespace

std::string PropertyList::description() const {
    std::string text = "{\n";
    for (const auto& key : keys()) {
        auto value = stringForKey(key);
        std::string shown;
        if (value) {
            shown = Quoted(*value);
        } else {
            plist_t item = plist_dict_get_item(_root->plist, key.c_str());
            shown = plist_get_node_type(item) == PLIST_ARRAY ? "(...)" : "{...}";
        }
        text += "    " + Quoted(key) + " = " + shown + ";\n";
    }
    return text + "}";
}
