#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

// RAII access to XML documents through libxml2. Documents are parsed keeping white space
// and CDATA sections; external entities, DTDs and the network are never loaded. Nodes hold
// a share of their document, so a node stays valid as long as anybody keeps it.

struct _xmlDoc;
struct _xmlNode;

struct XmlError {
    int code = 0; // libxml2's error number
    int line = 0;
    std::string message;
};

using XmlDocumentHandle = std::shared_ptr<_xmlDoc>;
// Values for "$name" references in an XPath expression; a value is never pasted into
// the expression text, so quote characters in it are harmless.
using XPathVariables = std::map<std::string, std::string>;

class XmlNode {
public:
    XmlNode() = default;
    XmlNode(XmlDocumentHandle doc, _xmlNode* node) : _doc(std::move(doc)), _node(node) {}

    explicit operator bool() const { return _node != nullptr; }
    bool isElement() const;
    std::string name() const;
    // The XPath string value: all descendant text, concatenated.
    std::string stringValue() const;
    std::optional<std::string> attribute(const std::string& name) const;

    // Evaluates an XPath 1.0 expression with this node as the context node. Anything but a
    // node set gives an empty list. Errors of the engine are appended to errors when given.
    std::vector<XmlNode> select(const std::string& expression, const XPathVariables& variables = {},
                                std::vector<XmlError>* errors = nullptr) const;
    // The string value of the one node expression selects, when it selects exactly one and
    // that is an element; nothing otherwise. (select() and IsSingleElement() in one, without
    // building the node set for child steps.)
    std::optional<std::string> singleElementText(const std::string& expression) const;
    // The string value of an XPath expression (string(), count(), a node set's first node).
    std::optional<std::string> evaluateString(const std::string& expression,
                                              const XPathVariables& variables = {},
                                              std::vector<XmlError>* errors = nullptr) const;

    std::vector<XmlNode> childElements() const;
    XmlNode parent() const;

    // Editing. New nodes belong to this node's document.
    XmlNode addChild(const std::string& name, const std::optional<std::string>& text = {});
    // Deep-copies a node of any document and appends the copy as the last child.
    XmlNode addCopyOf(const XmlNode& node);
    void setAttribute(const std::string& name, const std::string& value);
    void setText(const std::string& text);
    // Unlinks the node from its document and frees it; the handle becomes empty.
    void remove();
    // Removes, in this element and every element below it, the text that only indents:
    // the text children of an element that holds elements and no text other than white
    // space. Text of leaf elements and mixed content stays as it is.
    void removeIndentation();

    // The node serialised as XML text, formatted.
    std::string toXmlString() const;

    _xmlNode* raw() const { return _node; }
    const XmlDocumentHandle& document() const { return _doc; }

private:
    XmlDocumentHandle _doc;
    _xmlNode* _node = nullptr;
};

enum class XmlParseMode {
    Strict,            // white space and CDATA kept
    StrictThenRecover, // and when that yields no document, the repairing parse
};

struct XmlParseResult {
    XmlDocumentHandle document; // null when no document could be read
    bool recovered = false;     // the document came from the repairing parse
    std::vector<XmlError> errors;
};

class XmlDocument {
public:
    static XmlParseResult parseFile(const std::string& path,
                                    XmlParseMode mode = XmlParseMode::StrictThenRecover);
    static XmlParseResult parseMemory(const std::string& text,
                                      XmlParseMode mode = XmlParseMode::StrictThenRecover);
    // A new document holding one empty root element.
    static XmlDocumentHandle create(const std::string& rootName);

    static XmlNode root(const XmlDocumentHandle& doc);

    // Writes the document pretty-printed (UTF-8, with XML declaration). An atomic save
    // writes a temporary file beside the target, syncs it and renames it over the target,
    // so readers see either the old or the new file, never a part. The file keeps the
    // mode of the file it replaces (0644 for a new file).
    [[nodiscard]] static bool save(const XmlDocumentHandle& doc, const std::string& path,
                                   bool atomic, std::string* error = nullptr);
    static std::string toXmlString(const XmlDocumentHandle& doc);
};

// True when the list holds exactly one node and that node is an element.
bool IsSingleElement(const std::vector<XmlNode>& nodes);

// Text escaped as libxml2's writer escapes it, for XML written by hand: character data, or
// an attribute value quoted with '"' (quotes, line feeds and tabs escaped as well, so that
// attribute normalisation gives them back).
enum class XmlEscapeFor { Text, Attribute };
std::string XmlEscape(const std::string& text, XmlEscapeFor where);
