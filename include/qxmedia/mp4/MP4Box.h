#pragma once
/// @file
/// The box model of the MP4 layer.
///
/// A file is a tree of boxes. Every box is a `Box`; a box type that the layer
/// writes or edits has a small subclass with its fields as public members,
/// and every other box stays a plain `Box` whose payload is kept as bytes
/// (`trailing`) and written back untouched. Top-level boxes that are not
/// loaded (mdat, and any large unknown box) are `FileRangeBox`es: only their
/// place in the source file is known, and the file layer copies them.
///
/// Adding a typed box:
///   1. Derive from `Box` (or `FullBox` for a box with version and flags, or
///      `ContainerBox` when its payload is a list of child boxes). Give it
///      `static constexpr FourCC kType = fourcc("abcd");` and a constructor
///      without arguments that passes kType to the base (a class serving
///      several types, e.g. sample entries, takes the FourCC instead).
///   2. Override `parseFields` (read the fixed fields; return false when they
///      do not make sense) and `writeFields` (write the same fields). Return
///      true from `hasChildren()` when child boxes follow the fields. Bytes
///      after the fields (and after the children) that the class does not
///      read are kept in `trailing` and written back, so a newer version of
///      a box survives a round trip.
///   3. Register it once by FourCC in the .cpp that defines its virtual
///      functions: `QX_MP4_REGISTER_BOX(MyBox, "abcd");` or, for a type that
///      means something else elsewhere, `QX_MP4_REGISTER_BOX_IN(MyBox,
///      "name", "udta");` (only below a parent of that type). A registration
///      with a parent wins over one without.
///
/// Lookups are then typed: `trak->findChild<TkhdBox>()`,
/// `moov->findPath<StsdBox>("trak.mdia.minf.stbl.stsd")`, or by FourCC:
/// `box->findChild(fourcc("udta"))`.
///
/// A box tree is not thread-safe: one thread at a time uses it. The registry
/// may be used from any thread.

#include "qxmedia/mp4/MP4Bytes.h"

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

namespace qx::mp4 {

/// A box type, brand or other four-character code: its four bytes read as one
/// big-endian number ("moov" is 0x6D6F6F76).
using FourCC = uint32_t;

/// The FourCC of a four-character literal, usable at compile time: `fourcc("moov")`.
constexpr FourCC fourcc(const char (&text)[5])
{
    return (FourCC(uint8_t(text[0])) << 24) | (FourCC(uint8_t(text[1])) << 16) | (FourCC(uint8_t(text[2])) << 8) |
           FourCC(uint8_t(text[3]));
}
/// The FourCC of a run-time string: its first four characters, padded with
/// blanks when it is shorter ("ac-3", "url" gives "url ").
FourCC fourcc(std::string_view text);
/// The four characters as they are (may hold unprintable bytes).
std::string fourccString(FourCC type);
/// True when all four bytes are printable ASCII (0xA9, the copyright sign of
/// iTunes tags, counts as printable).
bool fourccIsPrintable(FourCC type);

/// One box of the tree: its type, its children (owned) and the payload bytes
/// no class reads. A plain `Box` holds its whole payload in `trailing`;
/// subclasses add typed fields. Not copyable; boxes are owned by their
/// parent through `std::unique_ptr`.
class Box {
public:
    /// A box of `type` without fields or children.
    explicit Box(FourCC type) : type_(type) {}
    virtual ~Box();
    Box(const Box&) = delete;
    Box& operator=(const Box&) = delete;

    /// The four-character type of the box.
    FourCC type() const { return type_; }
    /// The type as four characters, e.g. "moov" (may hold unprintable bytes).
    std::string typeString() const { return fourccString(type_); }
    /// Changes the type, e.g. to turn a box into `free`. Keeps the payload.
    void setType(FourCC type) { type_ = type; }
    /// The box this one is a child of; null for a root and for a box not (or
    /// no longer) in a tree.
    Box* parent() const { return parent_; }

    /// Reads the fields that come before the children / trailing bytes.
    /// Return false if they cannot be right; the parser then keeps the box as
    /// an untyped box. The reader covers the payload only.
    virtual bool parseFields(ByteReader& in);
    /// Writes the fields that parseFields() reads (not the header, children or
    /// trailing bytes). A plain box has none.
    virtual void writeFields(ByteWriter& out) const;
    /// True when child boxes follow the fields in the payload.
    virtual bool hasChildren() const { return false; }
    /// A few words for `qxmp4 dump` (fields that matter), may be empty.
    virtual std::string describe() const { return {}; }

    /// Serialises the whole box with its header; sizes are computed. A box
    /// larger than 4 GiB - 1 gets a 64-bit size, whatever `largeSize` says.
    void write(ByteWriter& out) const;
    /// The whole box as write() makes it.
    std::vector<uint8_t> toBytes() const;
    /// Bytes the box takes when written, header included. Serialises the box
    /// to find out, so it costs as much as write().
    uint64_t size() const;

    /// Children, in file order.
    const std::vector<std::unique_ptr<Box>>& children() const { return children_; }
    /// The `index`-th child (counting from 0) of `type`; null if there is none.
    Box* findChild(FourCC type, size_t index = 0) const;
    /// Every child of `type`, in file order; the boxes stay owned by this one.
    std::vector<Box*> findChildren(FourCC type) const;
    /// Dotted path of child types below this box: "mdia.minf.stbl". A part
    /// may be "*" for any type, and may carry an index: "trak[1]". Null when
    /// a part is not found; an empty path gives this box.
    Box* findPath(std::string_view path) const;

    /// The `index`-th child of T's type (T::kType); null when there is none or
    /// when it is not a T (it did not parse, or another class reads it there).
    template <class T> T* findChild(size_t index = 0) const { return dynamic_cast<T*>(findChild(T::kType, index)); }
    /// findPath() as a T; null when the box is missing or is not a T.
    template <class T> T* findPath(std::string_view path) const { return dynamic_cast<T*>(findPath(path)); }
    /// The first ancestor of type T, or null.
    template <class T> T* findParent() const
    {
        for (Box* p = parent_; p; p = p->parent_)
            if (auto typed = dynamic_cast<T*>(p)) return typed;
        return nullptr;
    }

    /// Appends `child`, taking ownership; returns it (null when `child` is null).
    Box* addChild(std::unique_ptr<Box> child);
    /// Inserts `child` before the child at `index` (appends when `index` is past
    /// the end), taking ownership; returns it (null when `child` is null).
    Box* insertChild(size_t index, std::unique_ptr<Box> child);
    /// addChild() keeping the child's class.
    template <class T> T* addChild(std::unique_ptr<T> child) { return static_cast<T*>(addChild(std::unique_ptr<Box>(std::move(child)))); }
    /// Appends a new T made from `args`; returns it.
    template <class T, class... Args> T* makeChild(Args&&... args)
    {
        return addChild(std::make_unique<T>(std::forward<Args>(args)...));
    }
    /// The existing child of T's type, or a new one appended.
    template <class T> T* findOrMakeChild()
    {
        if (T* found = findChild<T>()) return found;
        return makeChild<T>();
    }
    /// Takes `child` out of the tree and hands it to the caller; null when it
    /// is not a child of this box.
    std::unique_ptr<Box> removeChild(Box* child);
    /// Removes and destroys every child of `type`; returns how many there were.
    size_t removeChildren(FourCC type);
    /// Position of `child` among the children; children().size() when it is not one.
    size_t indexOf(const Box* child) const;
    /// Replaces a child in place (same position), returning the old one. Null
    /// when `old` is not a child or `replacement` is null (the replacement is
    /// then destroyed and nothing changes).
    std::unique_ptr<Box> replaceChild(Box* old, std::unique_ptr<Box> replacement);

    /// Payload bytes after the fields and children that no class reads.
    std::vector<uint8_t> trailing;
    ///@{
    /// Where the box was read from: offset of its header in the file, and its
    /// size there in bytes, header included; 0 and 0 for a box made in memory.
    /// Not updated by edits.
    uint64_t fileOffset = 0;
    uint64_t fileSize = 0;
    ///@}
    /// The source header used a 64-bit size (only informative: write() picks
    /// the size field by the size).
    bool largeSize = false;

protected:
    friend class BoxParser;
    /// The children, owned; subclasses may read them, changes go through addChild() and friends.
    std::vector<std::unique_ptr<Box>> children_;

private:
    FourCC type_;
    Box* parent_ = nullptr;
};

/// A box whose payload is a list of boxes (moov, trak, mdia, ...).
class ContainerBox : public Box {
public:
    /// An empty container of `type`.
    explicit ContainerBox(FourCC type) : Box(type) {}
    bool hasChildren() const override { return true; }
};

/// A box with a version byte and 24 bits of flags before its fields.
class FullBox : public Box {
public:
    /// A box of `type` with the given version and flags and default fields.
    explicit FullBox(FourCC type, uint8_t version = 0, uint32_t flags = 0)
        : Box(type), version(version), flags(flags) {}
    /// Reads version and flags, then parseFullFields(); false when either fails
    /// or reads past the payload.
    bool parseFields(ByteReader& in) override;
    /// Writes writeVersion() and flags, then writeFullFields().
    void writeFields(ByteWriter& out) const override;
    /// Fields after version and flags; `version` is already set when it runs.
    virtual bool parseFullFields(ByteReader& in) { (void)in; return true; }
    /// Writes the fields that parseFullFields() reads.
    virtual void writeFullFields(ByteWriter& out) const { (void)out; }
    /// The version written: boxes whose fields grow to 64 bits pick it by
    /// their values, so a model edit never needs to touch `version`.
    virtual uint8_t writeVersion() const { return version; }

    /// The version as read (or given); see writeVersion() for what is written.
    uint8_t version;
    /// The 24-bit flags (the top byte is ignored when written).
    uint32_t flags;
};

/// A top-level box that stays in the source file (mdat, big unknown boxes).
/// Its payload is never loaded; the file layer copies it when needed.
class FileRangeBox : public Box {
public:
    /// A box of `type`; the caller sets where its payload lies.
    explicit FileRangeBox(FourCC type) : Box(type) {}
    uint64_t payloadOffset = 0; ///< absolute offset of the payload in the source file
    uint64_t payloadSize = 0;   ///< length of the payload in bytes (header not counted)
    /// Size and place of the payload, as "N bytes at OFFSET".
    std::string describe() const override;
};

/// The root of a parsed file (type 0): its children are the top-level boxes.
class RootBox : public ContainerBox {
public:
    RootBox() : ContainerBox(0) {}
};

/// Makes an empty box of one registered class for `type` (its fields at their
/// defaults), ready for parseFields().
using BoxCreator = std::unique_ptr<Box> (*)(FourCC type);

/// The BoxCreator of class T: passes the type to T's constructor when T takes
/// one (a class serving several types), else uses T's own.
template <class T> std::unique_ptr<Box> createBox(FourCC type)
{
    if constexpr (std::is_constructible_v<T, FourCC>)
        return std::make_unique<T>(type);
    else
        return std::make_unique<T>();
}

/// Which class reads a box of a given type (below a given parent type).
/// Process-wide and guarded by a lock: any thread may register or look up.
class BoxRegistry {
public:
    /// parentType 0 means anywhere; type 0 with a parent means any type below
    /// that parent. A later registration of the same pair replaces the earlier
    /// one. Always returns true (so that it can initialise a static).
    static bool add(FourCC type, BoxCreator creator, FourCC parentType = 0);
    /// A typed box, or a plain Box when the type is not registered. Looks for
    /// this type below this parent, then any type below this parent, then this
    /// type anywhere. Registers the builtin boxes on first use.
    static std::unique_ptr<Box> create(FourCC type, FourCC parentType);
    /// True when create() would make a typed box for the pair.
    static bool isRegistered(FourCC type, FourCC parentType);
};

/// @cond INTERNAL
#define QX_MP4_REGISTER_CAT2(a, b) a##b
#define QX_MP4_REGISTER_CAT(a, b) QX_MP4_REGISTER_CAT2(a, b)
/// @endcond
/// Registers `Class` for boxes of `type` (a four-character string literal)
/// wherever they are. Use at namespace scope in the .cpp that defines the class.
#define QX_MP4_REGISTER_BOX(Class, type)                                                                 \
    static const bool QX_MP4_REGISTER_CAT(qxMp4Registered_, __COUNTER__) =                              \
        ::qx::mp4::BoxRegistry::add(::qx::mp4::fourcc(type), &::qx::mp4::createBox<Class>)
/// Registers `Class` for boxes of `type` only below a parent of `parentType`
/// (both four-character string literals); wins over a registration without parent.
#define QX_MP4_REGISTER_BOX_IN(Class, type, parentType)                                                  \
    static const bool QX_MP4_REGISTER_CAT(qxMp4Registered_, __COUNTER__) = ::qx::mp4::BoxRegistry::add( \
        ::qx::mp4::fourcc(type), &::qx::mp4::createBox<Class>, ::qx::mp4::fourcc(parentType))

/// Turns bytes into boxes. Never reads outside the range it is given: box
/// sizes are checked against the parent and the file, and damage is logged
/// ("invalid atom size" as an error, unprintable types as a warning).
class BoxParser {
public:
    /// A box header as read.
    struct Header {
        FourCC type = 0;         ///< the box type (0 and unprintable types are logged as suspect)
        uint64_t size = 0;       ///< whole box in bytes, header included
        uint32_t headerSize = 8; ///< 8, or 16 with a 64-bit size
    };
    /// Reads a box header from `in` (8 or 16 bytes) and checks its size
    /// against `available` bytes (counted from the header's start). Logs and
    /// returns false when the size cannot be right. A size of 0 means "to the
    /// end" and becomes `available`. `fileOffset` is where the header lies in
    /// the file, for the log only.
    static bool readHeader(ByteReader& in, uint64_t available, uint64_t fileOffset, Header& header);
    /// Parses the boxes in `in` as children of `parent`. `fileOffset` is the
    /// position of `in`'s first byte in the file (for fileOffset of boxes).
    /// `depth` is how deep `parent` lies (see kMaxDepth). Returns false when
    /// damage was found (what could be read is kept; the unreadable rest goes
    /// to `parent`'s trailing bytes).
    static bool parseChildren(ByteReader in, uint64_t fileOffset, Box& parent, int depth = 0);
    /// Parses one box's payload into a new box of the class registered for
    /// `type` below `parentType`; a typed box whose fields do not parse
    /// becomes a plain Box with the payload as its trailing bytes. Never null.
    /// `fileOffset` is the payload's position in the file; `damaged` (may be
    /// null) is set to true when damage was found among its children.
    static std::unique_ptr<Box> parsePayload(FourCC type, FourCC parentType, ByteReader payload, uint64_t fileOffset,
                                             int depth, bool* damaged);
    /// Re-reads an untyped box with the class now registered for its type
    /// (for boxes registered after the file was parsed). Returns the typed
    /// box (which replaced `box` in its parent) or null. On success `box`
    /// is destroyed; use the returned pointer.
    static Box* retype(Box* box);

    /// Deepest nesting parsed: the children of a box this deep are not
    /// parsed and the box is kept as plain bytes (logged as a warning).
    static constexpr int kMaxDepth = 48;
};

/// Registers the layer's own typed boxes. BoxRegistry runs it once, before
/// its first lookup, so a host never needs to call it.
void registerBuiltinBoxes();

} // namespace qx::mp4
