#include "base/Xml.h"

#include "TestSupport.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <thread>

namespace {

TEST(XmlTest, ParsesKeepingWhiteSpaceAndCData) {
    auto result = XmlDocument::parseMemory(
        "<PatcherConfig>\n  <Name>  Suite <![CDATA[<&>]]></Name>\n</PatcherConfig>");
    ASSERT_TRUE(result.document);
    EXPECT_FALSE(result.recovered);
    EXPECT_TRUE(result.errors.empty());
    auto root = XmlDocument::root(result.document);
    auto names = root.select("/PatcherConfig/Name");
    ASSERT_TRUE(IsSingleElement(names));
    EXPECT_EQ(names[0].stringValue(), "  Suite <&>");
    // The white-space text nodes are kept as children of the root.
    EXPECT_EQ(root.select("text()").size(), 2u);
}

TEST(XmlTest, MalformedDocumentIsReadOnlyByTheRecoveringParse) {
    TempDir dir;
    WriteTextFile(dir.file("broken.xml"), "<Root><A>one</A><B>two</Root>");
    auto strict = XmlDocument::parseFile(dir.file("broken.xml"), XmlParseMode::Strict);
    EXPECT_FALSE(strict.document);
    EXPECT_FALSE(strict.errors.empty());

    auto lenient = XmlDocument::parseFile(dir.file("broken.xml"));
    ASSERT_TRUE(lenient.document);
    EXPECT_TRUE(lenient.recovered);
    EXPECT_FALSE(lenient.errors.empty());
    EXPECT_NE(lenient.errors.front().code, 0);
    auto a = XmlDocument::root(lenient.document).select("/Root/A");
    ASSERT_EQ(a.size(), 1u);
    EXPECT_EQ(a[0].stringValue(), "one");
}

TEST(XmlTest, NothingReadableGivesNoDocument) {
    for (const std::string& text : {std::string(), std::string("not xml at all"),
                                    std::string("\x01\x02\xff\xfe binary", 12)}) {
        auto result = XmlDocument::parseMemory(text);
        EXPECT_FALSE(result.document) << text;
    }
    TempDir dir;
    auto missing = XmlDocument::parseFile(dir.file("missing.xml"));
    EXPECT_FALSE(missing.document);
}

// One large entity referred to many times, directly or through another entity, would
// stand for more text than any document of the patcher holds: refused, in either mode.
TEST(XmlTest, EntitiesThatStandForTooMuchTextAreRefused) {
    const std::string big(64 * 1024, 'x');
    auto document = [&](const std::string& extra, const std::string& body) {
        return "<?xml version=\"1.0\"?>\n<!DOCTYPE r [\n  <!ENTITY a \"" + big + "\">\n" + extra +
               "]>\n<r>" + body + "</r>";
    };
    auto repeat = [](const std::string& text, int times) {
        std::string out;
        for (int i = 0; i < times; ++i)
            out += text;
        return out;
    };
    const auto fine = XmlDocument::parseMemory(document("", repeat("&a;", 10)));
    ASSERT_TRUE(fine.document);
    EXPECT_EQ(XmlDocument::root(fine.document).stringValue().size(), 10 * big.size());

    for (const std::string& text :
         {document("", repeat("&a;", 300)),
          document("  <!ENTITY b \"" + repeat("&a;", 10) + "\">\n", repeat("&b;", 30))}) {
        for (const XmlParseMode mode : {XmlParseMode::Strict, XmlParseMode::StrictThenRecover}) {
            const auto refused = XmlDocument::parseMemory(text, mode);
            EXPECT_FALSE(refused.document);
            ASSERT_FALSE(refused.errors.empty());
            EXPECT_EQ(refused.errors.back().message,
                      "entity references stand for more than 16777216 bytes of text");
        }
    }
}

TEST(XmlTest, ExternalEntitiesAreNeverLoaded) {
    TempDir dir;
    WriteTextFile(dir.file("secret.txt"), "TOP-SECRET");
    WriteTextFile(dir.file("dtd.dtd"), "<!ENTITY ext2 'FROM-DTD'>");
    const std::string text = "<?xml version=\"1.0\"?>\n"
                             "<!DOCTYPE r [\n"
                             "  <!ENTITY ext SYSTEM \"file://" +
                             dir.file("secret.txt") +
                             "\">\n"
                             "  <!ENTITY % dtd SYSTEM \"file://" +
                             dir.file("dtd.dtd") +
                             "\">\n"
                             "  %dtd;\n"
                             "]>\n"
                             "<r>&ext;</r>";
    WriteTextFile(dir.file("entity.xml"), text);
    auto result = XmlDocument::parseFile(dir.file("entity.xml"));
    ASSERT_TRUE(result.document);
    auto root = XmlDocument::root(result.document);
    EXPECT_EQ(root.stringValue().find("TOP-SECRET"), std::string::npos);
    EXPECT_EQ(XmlDocument::toXmlString(result.document).find("FROM-DTD"), std::string::npos);
}

TEST(XmlTest, XPathVariableHoldsBothQuoteCharacters) {
    const std::string awkward = "it's \"quoted\"";
    auto doc = XmlDocument::create("PBSHistory");
    auto root = XmlDocument::root(doc);
    root.addChild("Patcher").setAttribute("id", "plain");
    root.addChild("Patcher").setAttribute("id", awkward);
    auto found = root.select("/PBSHistory/Patcher[@id = $value]", {{"value", awkward}});
    ASSERT_EQ(found.size(), 1u);
    EXPECT_EQ(found[0].attribute("id"), awkward);
    // A value that would break out of a pasted expression is only ever a value.
    auto none = root.select("/PBSHistory/Patcher[@id = $value]", {{"value", "x' or '1'='1"}});
    EXPECT_TRUE(none.empty());
}

TEST(XmlTest, XPathErrorsAreReported) {
    auto doc = XmlDocument::create("Root");
    std::vector<XmlError> errors;
    auto nodes = XmlDocument::root(doc).select("/Root[", {}, &errors);
    EXPECT_TRUE(nodes.empty());
    ASSERT_FALSE(errors.empty());
    EXPECT_NE(errors.front().code, 0);
    // Asked again, it is reported again.
    std::vector<XmlError> again;
    XmlDocument::root(doc).select("/Root[", {}, &again);
    EXPECT_EQ(again.size(), errors.size());
    // An undefined variable is an error too, not a silent empty string, each time: an
    // expression is kept compiled, its variables are looked up as it runs.
    for (int time = 0; time < 2; ++time) {
        errors.clear();
        XmlDocument::root(doc).select("/Root[@a = $missing]", {}, &errors);
        EXPECT_FALSE(errors.empty());
    }
}

TEST(XmlTest, AnExpressionKeptCompiledAnswersForEachDocumentAndNode) {
    auto first = XmlDocument::parseMemory("<a><b>one</b><b>two</b></a>");
    auto second = XmlDocument::parseMemory("<a><b>three</b></a>");
    for (int round = 0; round < 3; ++round) {
        EXPECT_EQ(XmlDocument::root(first.document).select("./b").size(), 2u);
        const auto nodes = XmlDocument::root(second.document).select("./b");
        ASSERT_EQ(nodes.size(), 1u);
        EXPECT_EQ(nodes[0].stringValue(), "three");
        EXPECT_EQ(XmlDocument::root(first.document).select("./b").at(1).select("string(.)").size(),
                  0u);
        EXPECT_EQ(XmlDocument::root(first.document).select("./b").at(1).evaluateString("string(.)"),
                  "two");
    }
}

// Child steps with plain names are answered without XPath: the same nodes, in the same order,
// as XPath selects.
TEST(XmlTest, PlainChildStepsSelectWhatXPathSelects) {
    auto parsed = XmlDocument::parseMemory(
        "<r xmlns:x='urn:x'><File><Operation>ADD</Operation><!-- c --><Path dir='a'>"
        "<FileName lang='en'>one</FileName><FileName>two</FileName></Path>text"
        "<x:Operation>namespaced</x:Operation><Path><FileName>three</FileName></Path>"
        "<Operation-2>dash</Operation-2></File><File/></r>");
    const XmlNode root = XmlDocument::root(parsed.document);
    auto texts = [](const std::vector<XmlNode>& nodes) {
        std::vector<std::string> values;
        for (const XmlNode& node : nodes)
            values.push_back(node.name() + "=" + node.stringValue());
        return values;
    };
    for (const char* steps : {"File", "File/Operation", "File/Path/FileName", "File/Path",
                              "File/Operation-2", "File/Missing", "File/File", "x:Operation"}) {
        const auto fast = root.select(std::string("./") + steps);
        const auto xpath = root.select(std::string("self::node()/") + steps);
        EXPECT_EQ(texts(fast), texts(xpath)) << steps;
    }
    const auto names = root.select("./File/Path/FileName");
    ASSERT_EQ(names.size(), 3u);
    EXPECT_EQ(names[0].stringValue(), "one");
    EXPECT_EQ(names[2].stringValue(), "three");
    EXPECT_TRUE(root.select("./File/x:Operation").empty()) << "no prefix bound here";
}

TEST(XmlTest, SingleElementTextIsWhatTheOneSelectedElementHolds) {
    auto parsed = XmlDocument::parseMemory(
        "<r xmlns:x='urn:x'><File><Operation>ADD</Operation><Checksum><Before>b<!-- c -->1"
        "</Before></Checksum><Path><Name>one</Name></Path><Path><Name>two</Name></Path>"
        "<Twice>1</Twice><Twice>2</Twice><x:Operation>namespaced</x:Operation><Empty/>"
        "</File></r>");
    const XmlNode file = XmlDocument::root(parsed.document).select("./File").at(0);
    // As select() and IsSingleElement() answer together, for plain steps and any other
    // expression.
    for (const char* expression :
         {"./Operation", "./Checksum/Before", "./Path/Name", "./Path", "./Twice", "./Missing",
          "./Checksum/Missing", "./x:Operation", "./Empty", "./Operation/text()", "./@dir",
          "Operation", "./Path[2]/Name", "string(./Operation)"}) {
        const auto nodes = file.select(expression);
        const std::optional<std::string> expected =
            IsSingleElement(nodes) ? std::optional(nodes.front().stringValue()) : std::nullopt;
        EXPECT_EQ(file.singleElementText(expression), expected) << expression;
    }
    EXPECT_EQ(file.singleElementText("./Checksum/Before"), "b1");
    EXPECT_EQ(file.singleElementText("./Empty"), "");
    EXPECT_EQ(file.singleElementText("./Path[2]/Name"), "two");
    EXPECT_EQ(file.singleElementText("./Path/Name"), std::nullopt) << "two of them";
    EXPECT_EQ(XmlNode().singleElementText("./Operation"), std::nullopt);
}

TEST(XmlTest, NodesKeepTheirDocumentAlive) {
    XmlNode kept;
    {
        auto result = XmlDocument::parseMemory("<a><b>value</b></a>");
        kept = XmlDocument::root(result.document).select("/a/b").at(0);
    }
    EXPECT_EQ(kept.stringValue(), "value");
    EXPECT_EQ(kept.name(), "b");
}

TEST(XmlTest, EvaluateStringAndChildren) {
    auto result = XmlDocument::parseMemory("<a x='1'><b/><c>t</c>text</a>");
    auto root = XmlDocument::root(result.document);
    EXPECT_EQ(root.evaluateString("count(*)"), "2");
    EXPECT_EQ(root.attribute("x"), "1");
    EXPECT_FALSE(root.attribute("y"));
    auto children = root.childElements();
    ASSERT_EQ(children.size(), 2u);
    EXPECT_EQ(children[1].name(), "c");
    EXPECT_EQ(children[1].parent().name(), "a");
    EXPECT_FALSE(IsSingleElement(root.select("text()")));
    EXPECT_FALSE(IsSingleElement(root.select("*")));
}

TEST(XmlTest, CopyNodesBetweenDocumentsAndEscapeText) {
    auto source = XmlDocument::parseMemory("<Manifest><FileSet><File/></FileSet></Manifest>");
    auto doc = XmlDocument::create("PBSHistory");
    auto patcher = XmlDocument::root(doc).addChild("Patcher");
    patcher.addChild("Note", std::string("a < b & \"c\""));
    patcher.addCopyOf(XmlDocument::root(source.document));
    source.document.reset();
    auto copied = XmlDocument::root(doc).select("/PBSHistory/Patcher/Manifest/FileSet/File");
    EXPECT_EQ(copied.size(), 1u);
    auto reparsed = XmlDocument::parseMemory(XmlDocument::toXmlString(doc), XmlParseMode::Strict);
    ASSERT_TRUE(reparsed.document);
    EXPECT_EQ(
        XmlDocument::root(reparsed.document).select("/PBSHistory/Patcher/Note")[0].stringValue(),
        "a < b & \"c\"");
}

TEST(XmlTest, RemoveIndentationTakesOnlyTheTextThatIndents) {
    const std::string text = "<a>\n  <b>\n    <c> leaf text </c>\n\t<d/>\r\n  </b>\n"
                             "  <m>mixed <e>x</e> content</m>\n  <s><![CDATA[  ]]><f/></s>\n"
                             "  <w>   </w>\n</a>";
    // What the same selection in XPath removes, for comparison.
    auto reference = XmlDocument::parseMemory(text);
    for (XmlNode& blank : XmlDocument::root(reference.document)
                              .select("descendant-or-self::*[* and "
                                      "not(text()[normalize-space(.) != ''])]/text()"))
        blank.remove();

    auto result = XmlDocument::parseMemory(text);
    XmlDocument::root(result.document).removeIndentation();
    const std::string cleaned = XmlDocument::toXmlString(result.document);
    EXPECT_EQ(cleaned, XmlDocument::toXmlString(reference.document));
    EXPECT_NE(cleaned.find("<c> leaf text </c>"), std::string::npos);
    EXPECT_NE(cleaned.find("<m>mixed <e>x</e> content</m>"), std::string::npos);
    EXPECT_NE(cleaned.find("<w>   </w>"), std::string::npos);
    EXPECT_EQ(cleaned.find("CDATA"), std::string::npos);
}

TEST(XmlTest, EscapedByHandAsLibxml2WritesIt) {
    const std::string value = "a & b <c> \"d\" 'e'\tf\r\ng";
    auto doc = XmlDocument::create("Root");
    XmlNode child = XmlDocument::root(doc).addChild("Child", value);
    child.setAttribute("v", value);
    const std::string written = XmlDocument::toXmlString(doc);
    EXPECT_NE(written.find("v=\"" + XmlEscape(value, XmlEscapeFor::Attribute) + "\""),
              std::string::npos)
        << written;
    EXPECT_NE(written.find(">" + XmlEscape(value, XmlEscapeFor::Text) + "</Child>"),
              std::string::npos)
        << written;
    // And what is written by hand reads back as the value.
    auto parsed =
        XmlDocument::parseMemory("<R v=\"" + XmlEscape(value, XmlEscapeFor::Attribute) + "\">" +
                                     XmlEscape(value, XmlEscapeFor::Text) + "</R>",
                                 XmlParseMode::Strict);
    ASSERT_TRUE(parsed.document);
    EXPECT_EQ(XmlDocument::root(parsed.document).attribute("v"), value);
    EXPECT_EQ(XmlDocument::root(parsed.document).stringValue(), value);
}

TEST(XmlTest, SaveIsPrettyPrinted) {
    TempDir dir;
    auto doc = XmlDocument::create("Root");
    XmlDocument::root(doc).addChild("Child", std::string("v"));
    ASSERT_TRUE(XmlDocument::save(doc, dir.file("out.xml"), false));
    EXPECT_EQ(ReadTextFile(dir.file("out.xml")),
              "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<Root>\n  <Child>v</Child>\n</Root>\n");
}

TEST(XmlTest, AtomicSaveLeavesEitherTheOldOrTheNewFile) {
    TempDir dir;
    const std::string path = dir.file("history.xml");
    auto oldDoc = XmlDocument::create("Old");
    ASSERT_TRUE(XmlDocument::save(oldDoc, path, true));
    ::chmod(path.c_str(), 0640);
    const std::string oldText = ReadTextFile(path);

    auto newDoc = XmlDocument::create("New");
    for (int i = 0; i < 2000; ++i)
        XmlDocument::root(newDoc).addChild("Entry", std::to_string(i));
    const std::string newText = XmlDocument::toXmlString(newDoc);

    // A reader racing the writer only ever sees one of the two complete files.
    std::atomic<bool> done{false};
    std::atomic<int> torn{0};
    std::thread reader([&] {
        while (!done) {
            std::string seen = ReadTextFile(path);
            if (seen != oldText && seen != newText)
                ++torn;
        }
    });
    for (int round = 0; round < 20; ++round) {
        ASSERT_TRUE(XmlDocument::save(round % 2 ? oldDoc : newDoc, path, true));
    }
    done = true;
    reader.join();
    EXPECT_EQ(torn.load(), 0);

    struct stat info {};
    ASSERT_EQ(::stat(path.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0640u);

    // A save that cannot complete leaves the old file in place and no temporary behind.
    ASSERT_TRUE(XmlDocument::save(oldDoc, path, true));
    ::chmod(dir.path().c_str(), 0555);
    std::string error;
    bool saved = XmlDocument::save(newDoc, path, true, &error);
    ::chmod(dir.path().c_str(), 0755);
    if (::geteuid() != 0) {
        EXPECT_FALSE(saved);
        EXPECT_FALSE(error.empty());
    }
    if (!saved) {
        EXPECT_EQ(ReadTextFile(path), oldText);
    }
    ASSERT_TRUE(XmlDocument::save(newDoc, dir.file("missing-folder/x.xml"), true, &error) == false);
    EXPECT_NE(error.find("temporary"), std::string::npos);
}

} // namespace
