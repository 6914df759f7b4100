#include "base/Xml.h"

#include "base/FileUtil.h"

#include <libxml/parser.h>
#include <libxml/tree.h>
#include <libxml/xmlerror.h>
#include <libxml/xmlsave.h>
#include <libxml/xpath.h>
#include <libxml/xpathInternals.h>

#include <algorithm>
#include <cctype>
#include <mutex>
#include <optional>
#include <string_view>
#include <unordered_map>

namespace {

xmlParserInputPtr RefuseExternalEntity(const char* /*url*/, const char* /*id*/,
                                       xmlParserCtxtPtr /*ctxt*/) {
    return nullptr;
}

void InitLibxml() {
    static std::once_flag once;
    std::call_once(once, [] {
        xmlInitParser();
        // Nothing outside the document itself is ever read: no DTD, entity or URL.
        xmlSetExternalEntityLoader(RefuseExternalEntity);
    });
}

// Collects libxml2's errors of the current thread for the lifetime of the guard, instead
// of letting libxml2 print them to standard error (which is the log).
class ErrorCollector {
public:
    explicit ErrorCollector(std::vector<XmlError>* sink) : _sink(sink) {
        InitLibxml();
        xmlSetStructuredErrorFunc(this, &ErrorCollector::onError);
    }
    ~ErrorCollector() { xmlSetStructuredErrorFunc(nullptr, nullptr); }
    ErrorCollector(const ErrorCollector&) = delete;
    ErrorCollector& operator=(const ErrorCollector&) = delete;

private:
    static void onError(void* self, xmlErrorPtr error) {
        auto* collector = static_cast<ErrorCollector*>(self);
        if (!collector->_sink || !error)
            return;
        std::string message = error->message ? error->message : "";
        while (!message.empty() && message.back() == '\n')
            message.pop_back();
        collector->_sink->push_back({error->code, error->line, message});
    }
    std::vector<XmlError>* _sink;
};

XmlDocumentHandle Own(xmlDocPtr doc) {
    if (!doc)
        return nullptr;
    return XmlDocumentHandle(doc, [](xmlDocPtr d) { xmlFreeDoc(d); });
}

// No XML_PARSE_NOENT (entities stay references), no DTD loading, no network; blanks and
// CDATA sections are kept because neither XML_PARSE_NOBLANKS nor XML_PARSE_NOCDATA is set.
// Larger files are refused rather than parsed: no document of the patcher comes near it.
constexpr size_t kMaxDocumentBytes = 256 * 1024 * 1024;

constexpr int kStrictOptions = XML_PARSE_NONET;
constexpr int kRecoverOptions = XML_PARSE_NONET | XML_PARSE_RECOVER;

// The most text a document's entity references may stand for. libxml2 stops an entity that
// refers to itself or grows by nesting, but not one large entity referred to many times:
// a few kilobytes of input could stand for gigabytes once its text is read.
constexpr uint64_t kMostEntityText = 16 * 1024 * 1024;

// Adds to total the text that the entity references below node stand for (an entity's
// replacement, and again what the references inside it stand for), stopping once total
// passes kMostEntityText.
void AddEntityText(xmlNodePtr node, uint64_t& total, int depth) {
    for (; node && total <= kMostEntityText; node = node->next) {
        if (node->type == XML_ENTITY_REF_NODE) {
            const auto* entity = reinterpret_cast<xmlEntityPtr>(node->children);
            if (!entity)
                continue;
            total += static_cast<uint64_t>(std::max(entity->length, 0));
            if (depth < 40)
                AddEntityText(entity->children, total, depth + 1);
            else
                total = kMostEntityText + 1; // nested beyond any real use
        } else if (node->type == XML_ELEMENT_NODE) {
            AddEntityText(node->children, total, depth);
        }
    }
}

// True when the document's entity references stand for more text than kMostEntityText.
bool EntitiesExpandTooFar(xmlDocPtr doc) {
    if (!doc || !doc->intSubset)
        return false;
    uint64_t total = 0;
    AddEntityText(xmlDocGetRootElement(doc), total, 0);
    return total > kMostEntityText;
}

template <typename ParseOnce> XmlParseResult ParseWith(XmlParseMode mode, ParseOnce parseOnce) {
    XmlParseResult result;
    auto refuseExpansion = [&result] {
        if (!result.document || !EntitiesExpandTooFar(result.document.get()))
            return;
        result.document.reset();
        result.recovered = false;
        result.errors.push_back({XML_ERR_ENTITY_LOOP, 0,
                                 "entity references stand for more than " +
                                     std::to_string(kMostEntityText) + " bytes of text"});
    };
    {
        ErrorCollector collector(&result.errors);
        result.document = Own(parseOnce(kStrictOptions));
    }
    refuseExpansion();
    if (!result.document && mode == XmlParseMode::StrictThenRecover) {
        ErrorCollector collector(&result.errors);
        result.document = Own(parseOnce(kRecoverOptions));
        // A repairing parse of something without any element yields no usable document.
        if (result.document && !xmlDocGetRootElement(result.document.get()))
            result.document.reset();
        result.recovered = result.document != nullptr;
        refuseExpansion();
    }
    return result;
}

struct XPathContextDeleter {
    void operator()(xmlXPathContextPtr c) const { xmlXPathFreeContext(c); }
};
struct XPathObjectDeleter {
    void operator()(xmlXPathObjectPtr o) const { xmlXPathFreeObject(o); }
};
using XPathObject = std::unique_ptr<xmlXPathObject, XPathObjectDeleter>;
struct XPathCompiledDeleter {
    void operator()(xmlXPathCompExprPtr c) const { xmlXPathFreeCompExpr(c); }
};
using XPathCompiled = std::unique_ptr<xmlXPathCompExpr, XPathCompiledDeleter>;

// The few expressions the manifest walk asks again for every entry, compiled once per
// thread. An expression that does not compile is not kept, so that its errors are reported
// each time it is asked for.
constexpr size_t kCompiledExpressions = 256;

xmlXPathCompExprPtr Compiled(xmlXPathContextPtr context, const std::string& expression) {
    thread_local std::unordered_map<std::string, XPathCompiled> compiled;
    if (const auto found = compiled.find(expression); found != compiled.end())
        return found->second.get();
    XPathCompiled made(xmlXPathCtxtCompile(context, BAD_CAST expression.c_str()));
    if (!made)
        return nullptr;
    if (compiled.size() >= kCompiledExpressions)
        compiled.clear();
    return compiled.emplace(expression, std::move(made)).first->second.get();
}

XPathObject Evaluate(const XmlDocumentHandle& doc, xmlNodePtr node, const std::string& expression,
                     const XPathVariables& variables, std::vector<XmlError>* errors) {
    if (!doc || !node)
        return nullptr;
    ErrorCollector collector(errors);
    // A new context registers every XPath function in a table of its own, which costs more
    // than most of the small queries run here; each thread keeps one and points it at the
    // document and node of the query. It holds nothing of a document between queries.
    thread_local std::unique_ptr<xmlXPathContext, XPathContextDeleter> context(
        xmlXPathNewContext(nullptr));
    if (!context)
        return nullptr;
    context->doc = doc.get();
    context->node = node;
    context->contextSize = -1; // as a new context has them: no position outside a predicate
    context->proximityPosition = -1;
    for (const auto& [name, value] : variables) {
        xmlXPathRegisterVariable(context.get(), BAD_CAST name.c_str(),
                                 xmlXPathNewString(BAD_CAST value.c_str()));
    }
    xmlXPathCompExprPtr compiled = Compiled(context.get(), expression);
    XPathObject result(compiled ? xmlXPathCompiledEval(compiled, context.get()) : nullptr);
    xmlXPathRegisteredVariablesCleanup(context.get());
    context->doc = nullptr;
    context->node = nullptr;
    return result;
}

// The names of an expression made only of child steps with plain names ("./A", "./A/B"),
// the kind each manifest entry is read with many times; nothing for any other expression.
std::optional<std::vector<std::string_view>> PlainChildSteps(std::string_view expression) {
    if (expression.size() < 3 || expression.substr(0, 2) != "./")
        return std::nullopt;
    std::vector<std::string_view> steps;
    size_t start = 2;
    for (;;) {
        const size_t slash = expression.find('/', start);
        const std::string_view name = expression.substr(start, slash - start);
        const bool plain =
            !name.empty() &&
            (std::isalpha(static_cast<unsigned char>(name.front())) || name.front() == '_') &&
            std::all_of(name.begin(), name.end(), [](char c) {
                return std::isalnum(static_cast<unsigned char>(c)) || c == '_' || c == '-' ||
                       c == '.';
            });
        if (!plain)
            return std::nullopt;
        steps.push_back(name);
        if (slash == std::string_view::npos)
            return steps;
        start = slash + 1;
    }
}

// Whether a plain step selects child: an element so named, without a namespace (as an
// unprefixed name test wants).
bool StepSelects(std::string_view step, xmlNodePtr child) {
    return child->type == XML_ELEMENT_NODE && !child->ns && child->name &&
           step == reinterpret_cast<const char*>(child->name);
}

// What XPath selects for such steps from node: the children each step selects, step after
// step, in document order.
std::vector<xmlNodePtr> ChildrenAlong(xmlNodePtr node, const std::vector<std::string_view>& steps) {
    std::vector<xmlNodePtr> nodes{node};
    for (const std::string_view step : steps) {
        std::vector<xmlNodePtr> next;
        for (xmlNodePtr parent : nodes) {
            for (xmlNodePtr child = parent->children; child; child = child->next) {
                if (StepSelects(step, child))
                    next.push_back(child);
            }
        }
        nodes = std::move(next);
    }
    return nodes;
}

// Counts, up to two, the elements that the steps from step to end select below node, as
// ChildrenAlong finds them; found is the first.
void CountAlong(xmlNodePtr node, const std::string_view* step, const std::string_view* end,
                size_t& count, xmlNodePtr& found) {
    for (xmlNodePtr child = node->children; child && count < 2; child = child->next) {
        if (!StepSelects(*step, child))
            continue;
        if (step + 1 != end)
            CountAlong(child, step + 1, end, count, found);
        else if (count++ == 0)
            found = child;
    }
}

std::string TakeXmlChars(xmlChar* chars) {
    if (!chars)
        return {};
    std::string text(reinterpret_cast<const char*>(chars));
    xmlFree(chars);
    return text;
}

} // namespace

bool XmlNode::isElement() const {
    return _node && _node->type == XML_ELEMENT_NODE;
}

std::string XmlNode::name() const {
    return _node && _node->name ? reinterpret_cast<const char*>(_node->name) : "";
}

std::string XmlNode::stringValue() const {
    if (!_node)
        return {};
    return TakeXmlChars(xmlNodeGetContent(_node));
}

std::optional<std::string> XmlNode::attribute(const std::string& name) const {
    if (!isElement())
        return std::nullopt;
    xmlChar* value = xmlGetProp(_node, BAD_CAST name.c_str());
    if (!value)
        return std::nullopt;
    return TakeXmlChars(value);
}

std::vector<XmlNode> XmlNode::select(const std::string& expression, const XPathVariables& variables,
                                     std::vector<XmlError>* errors) const {
    std::vector<XmlNode> nodes;
    if (_doc && _node && variables.empty()) {
        if (const auto steps = PlainChildSteps(expression)) {
            for (xmlNodePtr found : ChildrenAlong(_node, *steps))
                nodes.emplace_back(_doc, found);
            return nodes;
        }
    }
    XPathObject result = Evaluate(_doc, _node, expression, variables, errors);
    if (!result || result->type != XPATH_NODESET || !result->nodesetval)
        return nodes;
    xmlNodeSetPtr set = result->nodesetval;
    nodes.reserve(static_cast<size_t>(set->nodeNr));
    for (int i = 0; i < set->nodeNr; ++i)
        nodes.emplace_back(_doc, set->nodeTab[i]);
    return nodes;
}

std::optional<std::string> XmlNode::singleElementText(const std::string& expression) const {
    if (_doc && _node) {
        if (const auto steps = PlainChildSteps(expression)) {
            size_t count = 0;
            xmlNodePtr found = nullptr;
            CountAlong(_node, steps->data(), steps->data() + steps->size(), count, found);
            if (count != 1)
                return std::nullopt;
            return TakeXmlChars(xmlNodeGetContent(found));
        }
    }
    const std::vector<XmlNode> nodes = select(expression);
    if (!IsSingleElement(nodes))
        return std::nullopt;
    return nodes.front().stringValue();
}

std::optional<std::string> XmlNode::evaluateString(const std::string& expression,
                                                   const XPathVariables& variables,
                                                   std::vector<XmlError>* errors) const {
    XPathObject result = Evaluate(_doc, _node, expression, variables, errors);
    if (!result)
        return std::nullopt;
    return TakeXmlChars(xmlXPathCastToString(result.get()));
}

namespace {

bool IsTextNode(xmlNodePtr node) {
    return node->type == XML_TEXT_NODE || node->type == XML_CDATA_SECTION_NODE;
}

// XPath's normalize-space(.) != '': anything but space, tab, carriage return, line feed.
bool HasVisibleText(xmlNodePtr text) {
    for (const xmlChar* c = text->content; c && *c; ++c) {
        if (*c != ' ' && *c != '\t' && *c != '\r' && *c != '\n')
            return true;
    }
    return false;
}

void RemoveIndentationBelow(xmlNodePtr element) {
    bool holdsElements = false;
    bool holdsText = false;
    for (xmlNodePtr child = element->children; child; child = child->next) {
        if (child->type == XML_ELEMENT_NODE) {
            holdsElements = true;
            RemoveIndentationBelow(child);
        } else if (IsTextNode(child) && HasVisibleText(child)) {
            holdsText = true;
        }
    }
    if (!holdsElements || holdsText)
        return;
    for (xmlNodePtr child = element->children; child;) {
        xmlNodePtr next = child->next;
        if (IsTextNode(child)) {
            xmlUnlinkNode(child);
            xmlFreeNode(child);
        }
        child = next;
    }
}

} // namespace

void XmlNode::removeIndentation() {
    if (isElement())
        RemoveIndentationBelow(_node);
}

std::vector<XmlNode> XmlNode::childElements() const {
    std::vector<XmlNode> children;
    if (!_node)
        return children;
    for (xmlNodePtr child = _node->children; child; child = child->next) {
        if (child->type == XML_ELEMENT_NODE)
            children.emplace_back(_doc, child);
    }
    return children;
}

XmlNode XmlNode::parent() const {
    if (!_node || !_node->parent || _node->parent->type != XML_ELEMENT_NODE)
        return {};
    return XmlNode(_doc, _node->parent);
}

XmlNode XmlNode::addChild(const std::string& name, const std::optional<std::string>& text) {
    if (!_node)
        return {};
    xmlNodePtr child = xmlNewDocNode(_doc.get(), nullptr, BAD_CAST name.c_str(), nullptr);
    if (!child)
        return {};
    if (text)
        xmlNodeAddContent(child, BAD_CAST text->c_str()); // escaped on output
    xmlAddChild(_node, child);
    return XmlNode(_doc, child);
}

XmlNode XmlNode::addCopyOf(const XmlNode& node) {
    if (!_node || !node._node)
        return {};
    xmlNodePtr copy = xmlDocCopyNode(node._node, _doc.get(), 1);
    if (!copy)
        return {};
    xmlAddChild(_node, copy);
    return XmlNode(_doc, copy);
}

void XmlNode::setAttribute(const std::string& name, const std::string& value) {
    if (isElement())
        xmlSetProp(_node, BAD_CAST name.c_str(), BAD_CAST value.c_str());
}

void XmlNode::setText(const std::string& text) {
    if (!_node)
        return;
    xmlNodeSetContent(_node, nullptr);
    xmlNodeAddContent(_node, BAD_CAST text.c_str());
}

void XmlNode::remove() {
    if (!_node)
        return;
    xmlUnlinkNode(_node);
    xmlFreeNode(_node);
    _node = nullptr;
}

std::string XmlNode::toXmlString() const {
    if (!_node)
        return {};
    xmlBufferPtr buffer = xmlBufferCreate();
    if (!buffer)
        return {};
    xmlNodeDump(buffer, _doc.get(), _node, 0, 1);
    std::string text(reinterpret_cast<const char*>(xmlBufferContent(buffer)),
                     static_cast<size_t>(xmlBufferLength(buffer)));
    xmlBufferFree(buffer);
    return text;
}

XmlParseResult XmlDocument::parseFile(const std::string& path, XmlParseMode mode) {
    // The file is read here and parsed from memory, so that libxml2's entity loader, which
    // would otherwise open the document itself, can refuse every outside resource.
    auto text = ReadFileText(path, kMaxDocumentBytes);
    if (!text) {
        XmlParseResult result;
        result.errors.push_back({XML_IO_LOAD_ERROR, 0, "failed to load \"" + path + "\""});
        return result;
    }
    return ParseWith(mode, [&](int options) {
        return xmlReadMemory(text->data(), static_cast<int>(text->size()), path.c_str(), nullptr,
                             options);
    });
}

XmlParseResult XmlDocument::parseMemory(const std::string& text, XmlParseMode mode) {
    return ParseWith(mode, [&](int options) {
        return xmlReadMemory(text.data(), static_cast<int>(text.size()), nullptr, nullptr, options);
    });
}

XmlDocumentHandle XmlDocument::create(const std::string& rootName) {
    InitLibxml();
    XmlDocumentHandle doc = Own(xmlNewDoc(BAD_CAST "1.0"));
    if (!doc)
        return nullptr;
    xmlNodePtr root = xmlNewDocNode(doc.get(), nullptr, BAD_CAST rootName.c_str(), nullptr);
    xmlDocSetRootElement(doc.get(), root);
    return doc;
}

XmlNode XmlDocument::root(const XmlDocumentHandle& doc) {
    if (!doc)
        return {};
    return XmlNode(doc, xmlDocGetRootElement(doc.get()));
}

std::string XmlDocument::toXmlString(const XmlDocumentHandle& doc) {
    if (!doc)
        return {};
    xmlChar* memory = nullptr;
    int size = 0;
    xmlDocDumpFormatMemoryEnc(doc.get(), &memory, &size, "UTF-8", 1);
    if (!memory)
        return {};
    std::string text(reinterpret_cast<const char*>(memory), static_cast<size_t>(size));
    xmlFree(memory);
    return text;
}

bool XmlDocument::save(const XmlDocumentHandle& doc, const std::string& path, bool atomic,
                       std::string* error) {
    if (!doc) {
        if (error)
            *error = "no document";
        return false;
    }
    const std::string text = toXmlString(doc);
    if (text.empty()) {
        if (error)
            *error = "the document could not be serialised";
        return false;
    }
    return atomic ? WriteFileAtomically(path, text, error) : WriteFile(path, text, error);
}

bool IsSingleElement(const std::vector<XmlNode>& nodes) {
    return nodes.size() == 1 && nodes.front().isElement();
}

std::string XmlEscape(const std::string& text, XmlEscapeFor where) {
    const bool inAttribute = where == XmlEscapeFor::Attribute;
    std::string out;
    out.reserve(text.size());
    for (char c : text) {
        switch (c) {
        case '<':
            out += "&lt;";
            break;
        case '>':
            out += "&gt;";
            break;
        case '&':
            out += "&amp;";
            break;
        case '\r':
            out += "&#13;";
            break;
        case '"':
            out += inAttribute ? "&quot;" : "\"";
            break;
        case '\n':
            out += inAttribute ? "&#10;" : "\n";
            break;
        case '\t':
            out += inAttribute ? "&#9;" : "\t";
            break;
        default:
            out += c;
        }
    }
    return out;
}
