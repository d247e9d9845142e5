// Chapter files: two XML forms read with XPath, and two line-based text
// forms read with regular expressions.

#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <optional>
#include <string>

#include <pugixml.hpp>
#include <unistd.h>

#include "qxmedia/core/QXMedia.h"
#include "qxmedia/core/QXTimeFormat.h"
#include "qxmedia/platform/text/QXRegularExpression.h"
#include "qxmedia/platform/text/QXStringEncoding.h"
#include "qxmedia/source/QXChapterTrack.h"

using namespace qx;

namespace {

// NSCocoaErrorDomain codes of file reading.
constexpr int64_t kFileReadUnknownError = 256;
constexpr int64_t kFileReadNoPermissionError = 257;
constexpr int64_t kFileReadCorruptFileError = 259;
constexpr int64_t kFileReadNoSuchFileError = 260;
constexpr int64_t kFileReadInapplicableStringEncodingError = 261;

int64_t fileErrorCode(const QXURL& url)
{
    std::error_code ec;
    if (!std::filesystem::exists(url, ec)) return kFileReadNoSuchFileError;
    if (::access(url.c_str(), R_OK) != 0) return kFileReadNoPermissionError;
    return kFileReadUnknownError;
}

// The string value of an XPath result: an attribute's value, or the text of
// a node and its descendants.
std::string nodeString(const pugi::xpath_node& node)
{
    if (node.attribute()) return node.attribute().value();
    const pugi::xml_node n = node.node();
    if (n.type() == pugi::node_pcdata || n.type() == pugi::node_cdata) return n.value();
    static const pugi::xpath_query stringValue("string(.)");
    return stringValue.evaluate_string(node);
}

QXErrorRef xmlError(const QXURL& url, const pugi::xml_parse_result& result)
{
    const int64_t code = result.status == pugi::status_out_of_memory || result.status == pugi::status_internal_error
                             ? kFileReadUnknownError
                             : kFileReadCorruptFileError;
    std::string description = result.description();
    if (code == kFileReadCorruptFileError) description += " at offset " + std::to_string(result.offset);
    return QXMedia::errorWithDomain(NSCocoaErrorDomain, code,
                                    {{NSLocalizedDescriptionKey, description}, {NSFilePathErrorKey, url}});
}

// The encoding named in the XML declaration, if any.
std::string declaredEncoding(const std::string& bytes)
{
    if (!bytes.starts_with("<?xml")) return {};
    const std::string declaration = bytes.substr(0, bytes.find("?>"));
    const size_t key = declaration.find("encoding");
    if (key == std::string::npos) return {};
    const size_t open = declaration.find_first_of("\"'", key);
    if (open == std::string::npos) return {};
    const size_t close = declaration.find(declaration[open], open + 1);
    if (close == std::string::npos) return {};
    return declaration.substr(open + 1, close - open - 1);
}

// Parses an XML file. The parser itself knows the Unicode forms and
// ISO-8859-1; a file that declares another 8-bit or East Asian encoding
// (windows-1252, Shift_JIS, ...) is decoded to UTF-8 first.
bool loadXMLDocument(pugi::xml_document& document, const QXURL& url, QXErrorRef* error)
{
    std::ifstream in(url, std::ios::binary);
    if (!in) {
        QXSetError(error,
                   QXMedia::errorWithDomain(NSCocoaErrorDomain, fileErrorCode(url), {{NSFilePathErrorKey, url}}));
        return false;
    }
    std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    pugi::xml_encoding encoding = pugi::encoding_auto;
    const NSStringEncoding declared = QXStringEncodingForName(declaredEncoding(bytes));
    if (declared != QXUnknownStringEncoding && declared != NSUTF8StringEncoding &&
        declared != NSISOLatin1StringEncoding && declared != NSASCIIStringEncoding &&
        !QXIsWideUnicodeEncoding(declared)) {
        std::optional<std::string> text = QXStringFromData(bytes.data(), bytes.size(), declared);
        if (!text) {
            QXSetError(error, QXMedia::errorWithDomain(NSCocoaErrorDomain, kFileReadInapplicableStringEncodingError,
                                                       {{NSFilePathErrorKey, url}}));
            return false;
        }
        bytes = std::move(*text);
        encoding = pugi::encoding_utf8;
    }
    const pugi::xml_parse_result parsed =
        document.load_buffer(bytes.data(), bytes.size(), pugi::parse_default | pugi::parse_doctype, encoding);
    if (!parsed) {
        QXSetError(error, xmlError(url, parsed));
        return false;
    }
    return true;
}

} // namespace

bool QXChapterTrack::importChaptersFromURL(const QXURL& url, QXErrorRef* error)
{
    clearChapters();
    const std::string extension = url.extension().string();
    if (extension == ".chapters") return importChaptersFromChapters(url, error);
    if (extension == ".xml") return importChaptersFromXML(url, error);
    if (extension == ".txt") return importChaptersFromTXT(url, error);
    return false;
}

bool QXChapterTrack::importChaptersFromChapters(const QXURL& url, QXErrorRef* error)
{
    return importChaptersFromXMLDocument(url, "/chapterInfo/chapters/chapter", "./@time", "./@name", error);
}

bool QXChapterTrack::importChaptersFromXML(const QXURL& url, QXErrorRef* error)
{
    return importChaptersFromXMLDocument(url, "/Chapters/EditionEntry/ChapterAtom", "./ChapterTimeStart/text()",
                                         "./ChapterDisplay/ChapterString/text()", error);
}

bool QXChapterTrack::importChaptersFromXMLDocument(const QXURL& url, const char* chapterPath, const char* timePath,
                                                   const char* titlePath, QXErrorRef* error)
{
    pugi::xml_document document;
    if (!loadXMLDocument(document, url, error)) return false;
    const pugi::xpath_query chapterQuery(chapterPath);
    const pugi::xpath_query timeQuery(timePath);
    const pugi::xpath_query titleQuery(titlePath);

    bool added = false;
    for (const pugi::xpath_node& chapter : chapterQuery.evaluate_node_set(document)) {
        const pugi::xpath_node_set times = timeQuery.evaluate_node_set(chapter);
        // A chapter needs exactly one start time; with none or several it is
        // left out.
        if (times.size() != 1) continue;
        const CMTime timestamp = CMTimeFromSmpteString(nodeString(times.first()));
        const pugi::xpath_node_set titles = titleQuery.evaluate_node_set(chapter);
        std::optional<std::string> title;
        if (!titles.empty()) title = nodeString(titles.first());
        addChapter(std::move(title), timestamp);
        added = true;
    }
    return added;
}

bool QXChapterTrack::importChaptersFromTXT(const QXURL& url, QXErrorRef* error)
{
    const std::optional<std::string> text = QXStringWithContentsOfURL(url, nullptr, error);
    if (!text) return false;

    // OGM form: pairs of CHAPTERnn=time and CHAPTERnnNAME=title lines.
    // Otherwise each line that starts with a time holds the rest as title,
    // leading blank included.
    const char* pattern = text->starts_with("CHAPTER") ? "^CHAPTER[0-9]+=(.+)$[\\r\\n]+^CHAPTER[0-9]+NAME=(.*)$"
                                                       : "^([0-9]{2}.[0-9]{2}.[0-9]{2}.[0-9]{3})(.*)$";
    const auto expression = QXRegularExpression::regularExpressionWithPattern(
        pattern, NSRegularExpressionCaseInsensitive | NSRegularExpressionAnchorsMatchLines, error);
    if (!expression) return false;

    bool added = false;
    for (const QXTextCheckingResult& match : expression->matchesInString(*text)) {
        addChapter(match.substring(*text, 2), CMTimeFromSmpteString(match.substring(*text, 1)));
        added = true;
    }
    return added;
}
