#pragma once
// The box model of the MP4 layer.
//
// A file is a tree of boxes. Every box is a `Box`; a box type that the layer
// writes or edits has a small subclass with its fields as public members,
// and every other box stays a plain `Box` whose payload is kept as bytes
// (`trailing`) and written back untouched. Top-level boxes that are not
// loaded (mdat, and any large unknown box) are `FileRangeBox`es: only their
// place in the source file is known, and the file layer copies them.
//
// Adding a typed box:
//   1. Derive from `Box` (or `FullBox` for a box with version and flags, or
//      `ContainerBox` when its payload is a list of child boxes). Give it
//      `static constexpr FourCC kType = fourcc("abcd");` and a constructor
//      without arguments that passes kType to the base (a class serving
//      several types, e.g. sample entries, takes the FourCC instead).
//   2. Override `parseFields` (read the fixed fields; return false when they
//      do not make sense) and `writeFields` (write the same fields). Return
//      true from `hasChildren()` when child boxes follow the fields. Bytes
//      after the fields (and after the children) that the class does not
//      read are kept in `trailing` and written back, so a newer version of
//      a box survives a round trip.
//   3. Register it once by FourCC in the .cpp that defines its virtual
//      functions: `QX_MP4_REGISTER_BOX(MyBox, "abcd");` or, for a type that
//      means something else elsewhere, `QX_MP4_REGISTER_BOX_IN(MyBox,
//      "name", "udta");` (only below a parent of that type). A registration
//      with a parent wins over one without.
//   Lookups are then typed: `trak->findChild<TkhdBox>()`,
//   `moov->findPath<StblBox>("trak.mdia.minf.stbl")`, or by FourCC:
//   `box->findChild(fourcc("udta"))`.

#include "qxmedia/mp4/MP4Bytes.h"

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

namespace qx::mp4 {

using FourCC = uint32_t;

constexpr FourCC fourcc(const char (&text)[5])
{
    return (FourCC(uint8_t(text[0])) << 24) | (FourCC(uint8_t(text[1])) << 16) | (FourCC(uint8_t(text[2])) << 8) |
           FourCC(uint8_t(text[3]));
}
FourCC fourcc(std::string_view text); // first four characters, padded with blanks
// The four characters as they are (may hold unprintable bytes).
std::string fourccString(FourCC type);
// True when all four bytes are printable ASCII (0xA9, the copyright sign of
// iTunes tags, counts as printable).
bool fourccIsPrintable(FourCC type);

class Box {
public:
    explicit Box(FourCC type) : type_(type) {}
    virtual ~Box();
    Box(const Box&) = delete;
    Box& operator=(const Box&) = delete;

    FourCC type() const { return type_; }
    std::string typeString() const { return fourccString(type_); }
    // Changes the type, e.g. to turn a box into `free`. Keeps the payload.
    void setType(FourCC type) { type_ = type; }
    Box* parent() const { return parent_; }

    // Reads the fields that come before the children / trailing bytes.
    // Return false if they cannot be right; the parser then keeps the box as
    // an untyped box. The reader covers the payload only.
    virtual bool parseFields(ByteReader& in);
    virtual void writeFields(ByteWriter& out) const;
    virtual bool hasChildren() const { return false; }
    // A few words for `qxmp4 dump` (fields that matter), may be empty.
    virtual std::string describe() const { return {}; }

    // Serialises the whole box with its header; sizes are computed.
    void write(ByteWriter& out) const;
    std::vector<uint8_t> toBytes() const;
    uint64_t size() const;

    // Children, in file order.
    const std::vector<std::unique_ptr<Box>>& children() const { return children_; }
    Box* findChild(FourCC type, size_t index = 0) const;
    std::vector<Box*> findChildren(FourCC type) const;
    // Dotted path of child types below this box: "mdia.minf.stbl". A part
    // may be "*" for any type, and may carry an index: "trak[1]".
    Box* findPath(std::string_view path) const;

    template <class T> T* findChild(size_t index = 0) const { return dynamic_cast<T*>(findChild(T::kType, index)); }
    template <class T> T* findPath(std::string_view path) const { return dynamic_cast<T*>(findPath(path)); }
    // The first ancestor of type T, or null.
    template <class T> T* findParent() const
    {
        for (Box* p = parent_; p; p = p->parent_)
            if (auto typed = dynamic_cast<T*>(p)) return typed;
        return nullptr;
    }

    Box* addChild(std::unique_ptr<Box> child);
    Box* insertChild(size_t index, std::unique_ptr<Box> child);
    template <class T> T* addChild(std::unique_ptr<T> child) { return static_cast<T*>(addChild(std::unique_ptr<Box>(std::move(child)))); }
    template <class T, class... Args> T* makeChild(Args&&... args)
    {
        return addChild(std::make_unique<T>(std::forward<Args>(args)...));
    }
    // The existing child of T's type, or a new one appended.
    template <class T> T* findOrMakeChild()
    {
        if (T* found = findChild<T>()) return found;
        return makeChild<T>();
    }
    std::unique_ptr<Box> removeChild(Box* child);
    size_t removeChildren(FourCC type);
    size_t indexOf(const Box* child) const;
    // Replaces a child in place (same position), returning the old one.
    std::unique_ptr<Box> replaceChild(Box* old, std::unique_ptr<Box> replacement);

    // Payload bytes after the fields and children that no class reads.
    std::vector<uint8_t> trailing;
    // Where the box was read from; 0 and 0 for a box made in memory.
    uint64_t fileOffset = 0;
    uint64_t fileSize = 0;
    // The source header used a 64-bit size.
    bool largeSize = false;

protected:
    friend class BoxParser;
    std::vector<std::unique_ptr<Box>> children_;

private:
    FourCC type_;
    Box* parent_ = nullptr;
};

// A box whose payload is a list of boxes (moov, trak, mdia, ...).
class ContainerBox : public Box {
public:
    explicit ContainerBox(FourCC type) : Box(type) {}
    bool hasChildren() const override { return true; }
};

// A box with a version byte and 24 bits of flags before its fields.
class FullBox : public Box {
public:
    explicit FullBox(FourCC type, uint8_t version = 0, uint32_t flags = 0)
        : Box(type), version(version), flags(flags) {}
    bool parseFields(ByteReader& in) override;
    void writeFields(ByteWriter& out) const override;
    // Fields after version and flags.
    virtual bool parseFullFields(ByteReader& in) { (void)in; return true; }
    virtual void writeFullFields(ByteWriter& out) const { (void)out; }
    // The version written: boxes whose fields grow to 64 bits pick it by
    // their values, so a model edit never needs to touch `version`.
    virtual uint8_t writeVersion() const { return version; }

    uint8_t version;
    uint32_t flags;
};

// A top-level box that stays in the source file (mdat, big unknown boxes).
// Its payload is never loaded; the file layer copies it when needed.
class FileRangeBox : public Box {
public:
    explicit FileRangeBox(FourCC type) : Box(type) {}
    uint64_t payloadOffset = 0; // absolute offset of the payload in the source file
    uint64_t payloadSize = 0;
    std::string describe() const override;
};

// The root of a parsed file: its children are the top-level boxes.
class RootBox : public ContainerBox {
public:
    RootBox() : ContainerBox(0) {}
};

using BoxCreator = std::unique_ptr<Box> (*)(FourCC type);

template <class T> std::unique_ptr<Box> createBox(FourCC type)
{
    if constexpr (std::is_constructible_v<T, FourCC>)
        return std::make_unique<T>(type);
    else
        return std::make_unique<T>();
}

// Which class reads a box of a given type (below a given parent type).
class BoxRegistry {
public:
    // parentType 0 means anywhere; type 0 with a parent means any type below
    // that parent.
    static bool add(FourCC type, BoxCreator creator, FourCC parentType = 0);
    // A typed box, or a plain Box when the type is not registered.
    static std::unique_ptr<Box> create(FourCC type, FourCC parentType);
    static bool isRegistered(FourCC type, FourCC parentType);
};

#define QX_MP4_REGISTER_CAT2(a, b) a##b
#define QX_MP4_REGISTER_CAT(a, b) QX_MP4_REGISTER_CAT2(a, b)
#define QX_MP4_REGISTER_BOX(Class, type)                                                                 \
    static const bool QX_MP4_REGISTER_CAT(qxMp4Registered_, __COUNTER__) =                              \
        ::qx::mp4::BoxRegistry::add(::qx::mp4::fourcc(type), &::qx::mp4::createBox<Class>)
#define QX_MP4_REGISTER_BOX_IN(Class, type, parentType)                                                  \
    static const bool QX_MP4_REGISTER_CAT(qxMp4Registered_, __COUNTER__) = ::qx::mp4::BoxRegistry::add( \
        ::qx::mp4::fourcc(type), &::qx::mp4::createBox<Class>, ::qx::mp4::fourcc(parentType))

// Turns bytes into boxes. Never reads outside the range it is given: box
// sizes are checked against the parent and the file, and damage is logged
// ("invalid atom size" as an error, unprintable types as a warning).
class BoxParser {
public:
    struct Header {
        FourCC type = 0;
        uint64_t size = 0;       // whole box, header included
        uint32_t headerSize = 8; // 8, or 16 with a 64-bit size
    };
    // Reads a box header from `in` (8 or 16 bytes) and checks its size
    // against `available` bytes (counted from the header's start). Logs and
    // returns false when the size cannot be right. A size of 0 means "to the
    // end" and becomes `available`.
    static bool readHeader(ByteReader& in, uint64_t available, uint64_t fileOffset, Header& header);
    // Parses the boxes in `in` as children of `parent`. `fileOffset` is the
    // position of `in`'s first byte in the file (for fileOffset of boxes).
    // Returns false when damage was found (what could be read is kept).
    static bool parseChildren(ByteReader in, uint64_t fileOffset, Box& parent, int depth = 0);
    // Parses one box's payload into a new box of the registered class.
    static std::unique_ptr<Box> parsePayload(FourCC type, FourCC parentType, ByteReader payload, uint64_t fileOffset,
                                             int depth, bool* damaged);
    // Re-reads an untyped box with the class now registered for its type
    // (for boxes registered after the file was parsed). Returns the typed
    // box (which replaced `box` in its parent) or null.
    static Box* retype(Box* box);

    static constexpr int kMaxDepth = 48;
};

// Registers the layer's own typed boxes; called before any parse.
void registerBuiltinBoxes();

} // namespace qx::mp4
