#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

// Read-only access to property lists (XML or binary) through libplist.

class PropertyList {
public:
    // The dictionary at the top of the file, or nothing when the file cannot be read, is
    // not a property list, or does not hold a dictionary at its top.
    static std::optional<PropertyList> readDictionaryFromFile(const std::string& path);
    static std::optional<PropertyList> readDictionaryFromMemory(const std::string& data);

    bool hasKey(const std::string& key) const;
    // The value under the key as text: strings as they are, integers in decimal, booleans as
    // "1"/"0", reals as printf's "%g", dates as seconds since 2001. Nothing for a missing key
    // or a container value.
    std::optional<std::string> stringForKey(const std::string& key) const;
    std::vector<std::string> keys() const;
    // The dictionary as text in the usual property-list form: "{\n    key = value;\n}",
    // texts with other than letters, digits and "_$./:" in quotes, containers as "{...}"/"(...)".
    std::string description() const;

private:
    struct Node;
    explicit PropertyList(std::shared_ptr<Node> root) : _root(std::move(root)) {}
    std::shared_ptr<Node> _root;
};
