#include "qxmedia/matroska/QXMatroskaWalk.h"

#include <algorithm>
#include <cstring>
#include <exception>
#include <memory>

#include <ebml/EbmlBinary.h>
#include <ebml/EbmlCrc32.h>
#include <ebml/EbmlDate.h>
#include <ebml/EbmlFloat.h>
#include <ebml/EbmlHead.h>
#include <ebml/EbmlMaster.h>
#include <ebml/EbmlSInteger.h>
#include <ebml/EbmlStream.h>
#include <ebml/EbmlString.h>
#include <ebml/EbmlSubHead.h>
#include <ebml/EbmlUInteger.h>
#include <ebml/EbmlUnicodeString.h>
#include <ebml/EbmlVoid.h>
#include <ebml/StdIOCallback.h>
#include <matroska/KaxAttachments.h>
#include <matroska/KaxBlock.h>
#include <matroska/KaxChapters.h>
#include <matroska/KaxCluster.h>
#include <matroska/KaxCues.h>
#include <matroska/KaxInfo.h>
#include <matroska/KaxSeekHead.h>
#include <matroska/KaxSegment.h>
#include <matroska/KaxSemantic.h>
#include <matroska/KaxTag.h>
#include <matroska/KaxTags.h>
#include <matroska/KaxTracks.h>

#include "qxmedia/core/QXMedia.h"

using namespace libebml;
using namespace libmatroska;

namespace {

constexpr uint64_t kNoLimit = UINT64_MAX;

template <class T>
bool is(const EbmlElement* element)
{
    return EbmlId(*element) == EBML_ID(T);
}

// The bytes of an element's ID and size as they stand in the file.
uint64_t headLength(const EbmlElement& element)
{
    return EbmlId(element).GetLength() + element.GetSizeLength();
}

int sizeForLog(const EbmlElement& element)
{
    return int(get_element_size(element));
}

QXValue parseAtDepth(const EbmlElement* element, int depth)
{
    if (!element) return {};
    if (dynamic_cast<const EbmlVoid*>(element)) return {};
    if (auto master = dynamic_cast<const EbmlMaster*>(element)) {
        QXArray children;
        if (depth >= QXMatroskaWalk::kMaxDepth) return children;
        for (const EbmlElement* child : *master) {
            QXValue value = parseAtDepth(child, depth + 1);
            if (value.type() == QXValue::Type::Null) continue;
            QXDictionary entry;
            entry.emplace(EBML_NAME(child), std::move(value));
            children.emplace_back(std::move(entry));
        }
        return children;
    }
    if (auto number = dynamic_cast<const EbmlUInteger*>(element)) return uint64_t(number->GetValue());
    if (auto number = dynamic_cast<const EbmlSInteger*>(element)) return int64_t(number->GetValue());
    if (auto text = dynamic_cast<const EbmlString*>(element)) return std::string(text->GetValue());
    if (auto text = dynamic_cast<const EbmlUnicodeString*>(element)) return text->GetValueUTF8();
    if (auto data = dynamic_cast<const EbmlBinary*>(element)) {
        const uint8_t* bytes = data->GetBuffer();
        return bytes ? QXData(bytes, bytes + data->GetSize()) : QXData();
    }
    if (auto number = dynamic_cast<const EbmlFloat*>(element)) return double(number->GetValue());
    if (auto date = dynamic_cast<const EbmlDate*>(element)) {
        return QXDate(std::chrono::seconds(date->GetEpochDate()));
    }
    QXLogWarning("Unknown EBML element '%s'", EBML_NAME(element));
    return {};
}

// Fills a master with its children, read one by one inside its bounds:
// leaves with their data, masters the same way down to kMaxDepth. libebml's
// own recursive read can leave dangling children in a damaged file; this
// one only ever adds elements that were found and read whole.
void clearChildren(EbmlMaster& master)
{
    for (EbmlElement* child : master) delete child; // the defaults a new master starts with
    master.RemoveAll();
}

void readChildren(EbmlStream& stream, IOCallback& file, EbmlMaster& master, uint64_t end, int depth)
{
    clearChildren(master);
    if (depth >= QXMatroskaWalk::kMaxDepth) return;
    uint64_t position = master.GetElementPosition() + headLength(master);
    while (position < end) {
        file.setFilePointer(int64_t(position));
        int upperLevel = 0;
        std::unique_ptr<EbmlElement> child(
            stream.FindNextElement(EBML_CONTEXT(&master), upperLevel, end - position, true));
        if (!child || upperLevel > 0 || !child->IsFiniteSize()) break;
        const uint64_t childEnd = child->GetElementPosition() + headLength(*child) + child->GetSize();
        if (child->GetElementPosition() < position || childEnd > end) break;
        if (auto* inner = dynamic_cast<EbmlMaster*>(child.get())) {
            readChildren(stream, file, *inner, childEnd, depth + 1);
        } else if (auto* text = dynamic_cast<EbmlUnicodeString*>(child.get())) {
            // Read here: libebml's own read of these leaks on some damaged bytes.
            std::string bytes(size_t(child->GetSize()), '\0');
            file.setFilePointer(int64_t(child->GetElementPosition() + headLength(*child)));
            file.readFully(bytes.data(), bytes.size());
            bytes.resize(std::strlen(bytes.c_str()));
            text->SetValueUTF8(bytes);
        } else {
            file.setFilePointer(int64_t(child->GetElementPosition() + headLength(*child)));
            child->ReadData(file, SCOPE_ALL_DATA);
        }
        master.PushElement(*child.release());
        position = childEnd;
    }
    file.setFilePointer(int64_t(end));
}

template <class T>
const T* childOf(const EbmlMaster& master)
{
    for (const EbmlElement* child : master) {
        if (is<T>(child)) return static_cast<const T*>(child);
    }
    return nullptr;
}

void logHead(EbmlHead& head)
{
    QXLogInfo("l0Object: %s", QXMatroskaWalk::parseElement(&head).description().c_str());
    if (auto v = childOf<EVersion>(head)) QXLogInfo("EBML Version: %d", int(v->GetValue()));
    if (auto v = childOf<EReadVersion>(head)) QXLogInfo("EBML Read Version: %d", int(v->GetValue()));
    if (auto v = childOf<EMaxIdLength>(head)) QXLogInfo("Maximum EBML ID length: %d", int(v->GetValue()));
    if (auto v = childOf<EMaxSizeLength>(head)) QXLogInfo("Maximum EBML size length: %d", int(v->GetValue()));
    if (auto v = childOf<EDocType>(head)) QXLogInfo("Document Type: %s", std::string(v->GetValue()).c_str());
    if (auto v = childOf<EDocTypeVersion>(head)) QXLogInfo("Document Type Version: %d", int(v->GetValue()));
    if (auto v = childOf<EDocTypeReadVersion>(head)) {
        QXLogInfo("Document Type Read Version: %d", int(v->GetValue()));
    }
}

void logTagTargets(const KaxTagTargets& targets)
{
    QXLogInfo("KaxTagTargets: %d", sizeForLog(targets));
    if (auto type = childOf<KaxTagTargetType>(targets)) {
        QXLogInfo("Tag Target Type: %s", std::string(type->GetValue()).c_str());
    }
    if (auto value = childOf<KaxTagTargetTypeValue>(targets)) {
        QXLogInfo("Tag Target Type Value: %d", int(value->GetValue()));
    }
    for (const EbmlElement* child : targets) QXLogInfo("Tags child: %d", sizeForLog(*child));
}

// The tags as read: one "Tag" line per tag and a line per part of it.
void walkTags(const KaxTags& tags)
{
    for (const EbmlElement* tag : tags) {
        QXLogInfo("########### Tag");
        const auto* master = dynamic_cast<const EbmlMaster*>(tag);
        if (!master) continue;
        for (const EbmlElement* part : *master) {
            QXLogInfo("Name: %s", EBML_NAME(part));
            const int size = sizeForLog(*part);
            if (is<EbmlVoid>(part)) QXLogInfo("EBML void: %d", size);
            else if (is<EbmlCrc32>(part)) QXLogInfo("EBML CRC-32: %d", size);
            else if (is<KaxTags>(part)) QXLogInfo("KaxTags: %d", size);
            else if (is<KaxTag>(part)) QXLogInfo("KaxTag: %d", size);
            else if (is<KaxTagTargets>(part)) logTagTargets(*static_cast<const KaxTagTargets*>(part));
            else if (is<KaxTagSimple>(part)) QXLogInfo("KaxTagSimple: %d", size);
            else if (is<KaxTagTargetType>(part)) QXLogInfo("KaxTagTargetType: %d", size);
            else if (is<KaxTagTargetTypeValue>(part)) QXLogInfo("KaxTagTargetTypeValue: %d", size);
            else if (is<KaxTagName>(part)) QXLogInfo("KaxTagName: %d", size);
            else if (is<KaxTagString>(part)) QXLogInfo("KaxTagString: %d", size);
            else QXLogInfo("Unknown part %d of size %d", int(EbmlId(*part).GetValue()), size);
        }
    }
}

struct SegmentPartKind {
    const EbmlId& id;
    const char* format;
    bool tree; // read with its children and logged as a value tree
};

const SegmentPartKind* kindOf(const EbmlElement& element)
{
    static const SegmentPartKind kinds[] = {
        {EBML_ID(EbmlVoid), "EBML void: %d", false},
        {EBML_ID(EbmlCrc32), "EBML CRC-32: %d", false},
        {EBML_ID(KaxInfo), "Segment information: %d", true},
        {EBML_ID(KaxTracks), "Tracks: %d", true},
        {EBML_ID(KaxSeekHead), "Seek head: %d", true},
        {EBML_ID(KaxCues), "Cues: %d", true},
        {EBML_ID(KaxAttachments), "Attachments: %d", true},
        {EBML_ID(KaxClusterSilentTracks), "Silent Tracks: %d", false},
        {EBML_ID(KaxBlockGroup), "Block Group: %d", false},
        {EBML_ID(KaxCluster), "Cluster: %d", false},
        {EBML_ID(KaxChapters), "Chapters: %d", true},
        {EBML_ID(KaxTags), "Tags: %d", true},
    };
    const EbmlId id(element);
    const auto kind =
        std::find_if(std::begin(kinds), std::end(kinds), [&](const SegmentPartKind& k) { return k.id == id; });
    return kind == std::end(kinds) ? nullptr : kind;
}

// One top-level element of a segment: its line, and its tree where it is small.
void logSegmentPart(EbmlElement& element, const SegmentPartKind* kind, uint64_t size)
{
    if (!kind) {
        QXLogInfo("Unknown Segment part: %d", int(size));
        return;
    }
    QXLogInfo(kind->format, int(size));
    if (kind->tree) QXLogInfo("l1Object: %s", QXMatroskaWalk::parseElement(&element).description().c_str());
    if (EbmlId(element) == EBML_ID(KaxTags)) walkTags(static_cast<const KaxTags&>(element));
}

// The span of an element of unknown size that is not read (a live stream's
// cluster): its children are found and skipped one by one, without reading
// their data, up to the first element that is not one of them.
uint64_t measureUnread(EbmlStream& stream, IOCallback& file, uint64_t fileLength, EbmlElement& element)
{
    const uint64_t start = element.GetElementPosition();
    uint64_t end = start + EbmlId(element).GetLength();
    file.setFilePointer(int64_t(start + headLength(element)));
    for (;;) {
        int upperLevel = 0;
        std::unique_ptr<EbmlElement> child(stream.FindNextElement(EBML_CONTEXT(&element), upperLevel, kNoLimit, true));
        if (!child || upperLevel > 0 || !child->IsFiniteSize()) break;
        const uint64_t childEnd = child->GetElementPosition() + get_element_size(*child);
        if (childEnd <= end || childEnd > fileLength) break;
        end = childEnd;
        file.setFilePointer(int64_t(end));
    }
    return end - start;
}

// Walks the top-level elements of one segment, up to an element that the
// file cuts short. Clusters and the other parts without a logged tree are
// never read: libebml's block reading does not survive every damaged file.
void walkSegment(EbmlStream& stream, IOCallback& file, uint64_t fileLength, EbmlElement& segment)
{
    int upperLevel = 0;
    std::unique_ptr<EbmlElement> part(stream.FindNextElement(EBML_CONTEXT(&segment), upperLevel, kNoLimit, true));
    while (part && upperLevel <= 0) {
        const uint64_t position = part->GetElementPosition();
        const SegmentPartKind* kind = kindOf(*part);
        if (part->IsFiniteSize() && position + get_element_size(*part) > fileLength) {
            QXLogWarning("The file ends inside %s at %llu of %llu bytes; the walk stops", EBML_NAME(part.get()),
                         (unsigned long long)(fileLength - position), (unsigned long long)get_element_size(*part));
            break;
        }
        uint64_t size = 0;
        if (kind && kind->tree && part->IsFiniteSize()) {
            size = get_element_size(*part);
            readChildren(stream, file, static_cast<EbmlMaster&>(*part), position + size, 0);
        } else if (part->IsFiniteSize()) {
            size = get_element_size(*part);
        } else {
            size = measureUnread(stream, file, fileLength, *part);
            if (auto* master = dynamic_cast<EbmlMaster*>(part.get())) clearChildren(*master);
        }
        logSegmentPart(*part, kind, size);
        if (size == 0 || position + size > fileLength) break;
        file.setFilePointer(int64_t(position + size));
        part.reset(stream.FindNextElement(EBML_CONTEXT(&segment), upperLevel, kNoLimit, true));
    }
}

// The file opened for reading, or null after logging "Fail!".
std::unique_ptr<StdIOCallback> openFile(const QXURL& url)
{
    std::unique_ptr<StdIOCallback> file;
    try {
        file = std::make_unique<StdIOCallback>(url.c_str(), MODE_READ);
    } catch (...) {
        // libebml throws when fopen fails.
    }
    if (!file || file->getFilePointer() == uint64_t(-1)) {
        QXLogInfo("Fail!");
        return nullptr;
    }
    return file;
}

void walk(const QXURL& url)
{
    const std::unique_ptr<StdIOCallback> opened = openFile(url);
    if (!opened) return;
    StdIOCallback& file = *opened;
    file.setFilePointer(0, seek_end);
    const uint64_t fileLength = file.getFilePointer();
    file.setFilePointer(0);
    QXLogInfo("OK");
    EbmlStream stream(file);
    std::unique_ptr<EbmlElement> head(stream.FindNextID(EBML_INFO(EbmlHead), kNoLimit));
    if (!head || !is<EbmlHead>(head.get())) {
        QXMedia::log(false, QXLogFlagError, 0, __FILE__, __func__, __LINE__, nullptr,
                     "No EBML head found. This file is probably not a Matroska file.");
        return;
    }
    const uint64_t headEnd = head->GetElementPosition() + get_element_size(*head);
    if (!head->IsFiniteSize() || headEnd > fileLength) {
        QXLogWarning("The file ends inside the EBML head; the walk stops");
        return;
    }
    readChildren(stream, file, static_cast<EbmlHead&>(*head), headEnd, 0);
    logHead(static_cast<EbmlHead&>(*head));
    file.setFilePointer(int64_t(headEnd));

    for (;;) {
        std::unique_ptr<EbmlElement> level0(stream.FindNextID(EBML_INFO(KaxSegment), kNoLimit));
        if (!level0) break;
        if (!is<KaxSegment>(level0.get())) {
            QXMedia::log(false, QXLogFlagError, 0, __FILE__, __func__, __LINE__, nullptr,
                         "Unknown Element. Segment expected.");
        } else {
            walkSegment(stream, file, fileLength, *level0);
        }
        // A segment of unknown size runs to the end of the file.
        if (!level0->IsFiniteSize()) break;
        const uint64_t next = level0->GetElementPosition() + get_element_size(*level0);
        if (next <= level0->GetElementPosition()) break;
        file.setFilePointer(int64_t(next));
    }
}

} // namespace

uint64_t get_element_size(const EbmlElement& element)
{
    const auto* master = dynamic_cast<const EbmlMaster*>(&element);
    if (master && !element.IsFiniteSize()) {
        const uint64_t start = element.GetElementPosition();
        uint64_t end = start + EbmlId(element).GetLength();
        for (const EbmlElement* child : *master) {
            end = std::max(end, child->GetElementPosition() + get_element_size(*child));
        }
        return end - start;
    }
    return EbmlId(element).GetLength() + element.GetSizeLength() + element.GetSize();
}

QXValue QXMatroskaWalk::parseElement(const EbmlElement* element)
{
    return parseAtDepth(element, 0);
}

void QXMatroskaWalk::initWithMKVURL(const QXURL& url)
{
    try {
        walk(url);
    } catch (const std::exception& failure) {
        QXLogWarning("The Matroska walk ended at damaged data in %s: %s", url.c_str(), failure.what());
    } catch (...) {
        QXLogWarning("The Matroska walk ended at damaged data in %s", url.c_str());
    }
}
