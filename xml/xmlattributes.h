/// The attributes of one element. Internal: not installed.
#ifndef TALLOWIN_XML_XMLATTRIBUTES_H
#define TALLOWIN_XML_XMLATTRIBUTES_H

#include "xml/xmlmemory.h"
#include "xml/xmlslice.h"

/// One attribute, in one piece of memory and in the form in which it is written: a space, the name, the value in double
/// quotes. Never changed.
struct xmlAttribute {
    std::uint32_t m_NameLength;
    std::uint32_t m_ValueLength;
    bool m_IsNameSecret;
    bool m_IsValueSecret;
    bool m_IsEmbedded;  ///< Lies in the block of an element and is released with that.

    [[nodiscard]] char const* bytes() const noexcept { return reinterpret_cast<char const*>(this + 1); }
    [[nodiscard]] xmlSlice name() const noexcept { return {bytes() + 1, m_NameLength}; }
    [[nodiscard]] xmlSlice value() const noexcept { return {bytes() + m_NameLength + 3, m_ValueLength}; }

    /// All of it, as it is written.
    [[nodiscard]] xmlSlice text() const noexcept { return {bytes(), m_NameLength + m_ValueLength + 4}; }

    /// The length of `value` as it is stored: encoded, or taken to be encoded already.
    [[nodiscard]] static std::uint64_t storedLength(xmlPart value, bool isEncoded) noexcept;

    /// A new attribute whose value has the stored length `length`. Raises KVX_E_OUT_OF_MEMORY (TBFC_Exception).
    [[nodiscard]] static xmlAttribute* create(xmlPart name, xmlPart value, bool isEncoded, std::uint64_t length);

    /// The same in memory of others, in the `sizeFor` bytes at `place`.
    static xmlAttribute* createAt(void* place, xmlPart name, xmlPart value, bool isEncoded,
                                  std::uint64_t length) noexcept;

    /// A new attribute in the block of an element, in the `sizeFor` bytes at `place`; `value` is encoded already.
    /// Requires: `name` is part of a text and not its beginning, and `value`, unless empty, stands behind it.
    static xmlAttribute* createAt(void* place, xmlSlice name, xmlSlice value, bool isSecret) noexcept {
        auto* const created = static_cast<xmlAttribute*>(place);
        *created = {name.m_Length, value.m_Length, isSecret, isSecret, true};
        auto* const text = reinterpret_cast<char*>(created + 1);
        if (isAsWritten(name, value)) {
            std::memcpy(text, name.m_Bytes - 1, std::size_t{name.m_Length} + value.m_Length + kAround);
        } else {
            *copyTo(writeHead(name, text), value) = kAfterValue;
        }
        return created;
    }

    /// Bytes of an attribute of these lengths.
    [[nodiscard]] static std::uint64_t sizeFor(std::uint64_t nameLength, std::uint64_t valueLength) noexcept {
        return sizeof(xmlAttribute) + kAround + nameLength + valueLength;
    }

    /// An embedded one is only wiped, when it is secret.
    static void release(xmlAttribute* attribute) noexcept;

private:
    // What is written around name and value.
    static constexpr char kSpace = ' ';
    static constexpr char kEquals = '=';
    static constexpr char kBeforeValue = '"';
    static constexpr char kAfterValue = '"';
    static constexpr std::size_t kAround = 4;

    /// Whether `name` and `value` stand in their text as they are to be written.
    [[nodiscard]] static bool isAsWritten(xmlSlice name, xmlSlice value) noexcept {
        return value.m_Bytes == name.m_Bytes + name.m_Length + 2 && name.m_Bytes[-1] == kSpace &&
               value.m_Bytes[-1] == kBeforeValue;
    }

    static char* copyTo(char* target, xmlSlice text) noexcept {
        std::memcpy(target, text.m_Bytes, text.m_Length);
        return target + text.m_Length;
    }

    /// Writes all that comes before the value; returns the end.
    static char* writeHead(xmlSlice name, char* target) noexcept {
        *target++ = kSpace;
        target = copyTo(target, name);
        *target++ = kEquals;
        *target++ = kBeforeValue;
        return target;
    }
};

/// Attributes with different names in the order in which the names were first set. Names are equal as strings are.
///
/// Few attributes are searched one after the other; beyond `kFew` there is a tree. The first places lie right behind
/// the object, so few attributes need no memory for them.
class xmlAttributes {
public:
    /// Attributes that are searched one after the other.
    static constexpr std::uint32_t kFew = 32;

    /// No attributes. Raises KVX_E_OUT_OF_MEMORY (TBFC_Exception).
    [[nodiscard]] static xmlAttributes* create();

    /// No attributes, in the block of an element: in the `sizeFor(room)` bytes at `place`.
    static xmlAttributes* createAt(void* place, std::uint32_t room) noexcept {
        return new (place) xmlAttributes(room, true);
    }

    /// The same with `spare` bytes right behind, a multiple of `alignof(xmlAttribute)`, for attributes that are set
    /// later: those that have space there need no memory of their own.
    static xmlAttributes* createAt(void* place, std::uint32_t room, std::uint16_t spare) noexcept {
        xmlAttributes* const created = createAt(place, room);
        created->m_SpareAt = static_cast<std::uint32_t>(sizeFor(room));
        created->m_Spare = spare;
        return created;
    }

    /// Bytes of an object with places for `room` attributes.
    [[nodiscard]] static std::size_t sizeFor(std::uint32_t room) noexcept {
        return sizeof(xmlAttributes) + room * sizeof(xmlAttribute*);
    }

    /// Releases all attributes. Null is ignored.
    static void release(xmlAttributes* attributes) noexcept;

    xmlAttributes(xmlAttributes const&) = delete;
    xmlAttributes& operator=(xmlAttributes const&) = delete;

    [[nodiscard]] std::uint32_t count() const noexcept { return m_Count; }
    [[nodiscard]] xmlAttribute const& at(std::uint32_t index) const noexcept { return *m_Items[index]; }

    /// Null when there is none. Borrowed until the next change.
    [[nodiscard]] xmlAttribute const* find(xmlSlice name) const noexcept;

    /// Sets the attribute `name`, at its place or at the end; `value` is encoded, or taken to be encoded already. On
    /// failure nothing has changed.
    void set(xmlPart name, xmlPart value, bool isEncoded);

    /// Adds an attribute that lies in the block of the element. Requires: a name that is not there yet, and one of the
    /// first places.
    void addEmbedded(xmlAttribute* attribute) noexcept {
        m_Items[m_Count++] = attribute;
        m_IsReleaseDue = m_IsReleaseDue || attribute->m_IsValueSecret;
    }

private:
    struct Index;

    xmlAttributes(std::uint32_t room, bool isEmbedded) noexcept : m_Room(room), m_IsEmbedded(isEmbedded) {}
    ~xmlAttributes();

    [[nodiscard]] xmlAttribute* make(xmlPart name, xmlPart value, bool isEncoded);
    void put(xmlAttribute* attribute);

    static constexpr std::uint32_t kNone = UINT32_MAX;

    [[nodiscard]] std::uint32_t positionOf(xmlSlice name) const noexcept;
    void append(xmlAttribute* attribute);
    void makeRoom();

    [[nodiscard]] xmlAttribute** firstPlaces() noexcept { return reinterpret_cast<xmlAttribute**>(this + 1); }

    xmlAttribute** m_Items = firstPlaces();  ///< Targets are owned; places too, a block, but the first.
    Index* m_Index = nullptr;                ///< Owned; positions by name. Null while there are few.
    std::uint32_t m_Room;                    ///< Places at m_Items.
    std::uint32_t m_Count = 0;
    std::uint32_t m_SpareAt = 0;  ///< Where the bytes for attributes begin that no attribute lies in, from this on.
    std::uint16_t m_Spare = 0;    ///< How many those are.
    bool m_IsEmbedded;            ///< Lies in the block of an element and is released with that.
    bool m_IsReleaseDue = false;  ///< An attribute is not embedded, or secret.
};

#endif
