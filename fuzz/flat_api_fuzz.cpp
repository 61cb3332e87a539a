// Sequences of calls of the flat functions: any order, handles that are living, destroyed, of another kind or into the
// middle of an object or anywhere, texts and sizes of any shape, allocations that fail, a server that answers or does
// not.
//
// Input: a byte for each register, function, handle, size and failing allocation, a line for each text. Model: which
// handles are living. A call with another one is refused, a call with a living one is not; codes are published ones;
// nothing is written beyond a size; nothing stays behind.

#include <climits>
#include <cstring>
#include <map>
#include <set>
#include <vector>

#include "fuzz/fuzzcheck.h"
#include "fuzz/fuzzdirectory.h"
#include "fuzz/fuzzinput.h"
#include "fuzz/scriptednetwork.h"
#include "fuzz/shortage.h"
#include "fuzz/signmodel.h"
#include "tallowin/tallowin.h"

namespace kvxfuzz {

namespace {

using Files = std::map<std::string, std::string>;

constexpr int kMaxSteps = 60;
constexpr std::size_t kRegisters = 6;

Files const& filesBefore() {
    static Files const s_Files = {
        {"config.xml", R"(<KVX VTKEYID="server" VTURL="http://127.0.0.1/pay" CAPTUREURL="http://127.0.0.1/capture"/>)"},
        {"default.xml", R"(<KVX LANGID="en"/>)"},
        {"keys/current", "own"},
        {"keys/public/own", hexText(testKey("rsa/key512.public.hex"))},
        {"keys/private/own", hexText(testKey("rsa/key512.private.hex"))},
    };
    return s_Files;
}

FuzzDirectory const& directory() {
    static FuzzDirectory const s_Directory;
    return s_Directory;
}

enum class Kind { kNone, kSetup, kFactory, kMessage };

struct Register {
    KVX_HANDLE m_Handle = nullptr;
    Kind m_Kind = Kind::kNone;  ///< kNone for a handle that is not living.
};

class Machine {
public:
    Machine() { directory().restore(filesBefore()); }
    Machine(Machine const&) = delete;
    Machine& operator=(Machine const&) = delete;

    ~Machine() {
        for (Register const& entry : m_Registers) {
            destroyLiving(entry);
        }
    }

    void step(Input& input) {
        m_Shortage = shortageFrom(input);
        Register& target = m_Registers[input.below(kRegisters)];
        switch (input.below(24)) {
            case 0:
                make(target, Kind::kSetup, &CreateConfigurationSetup);
                break;
            case 1:
                make(target, Kind::kFactory, &CreateMessageFactory);
                break;
            case 2:
                make(target, Kind::kMessage, &CreateMessageObject);
                break;
            case 3:
                destroy(target, Kind::kSetup, &DestroyConfigurationSetup);
                break;
            case 4:
                destroy(target, Kind::kFactory, &DestroyMessageFactory);
                break;
            case 5:
                destroy(target, Kind::kMessage, &DestroyMessageObject);
                break;
            case 6:
                misplace(target, input);
                break;
            case 7:
                errorText(input);
                break;
            case 8:
                answer(input);
                break;
            default:
                use(target, input);
        }
    }

    void check() const { requireEqual(m_Network.open(), 0, "sockets left open"); }

private:
    /// Calls a function with a handle for objects of `kind`.
    template <class Call>
    std::int32_t call(Register const& target, Kind kind, Call function) {
        std::int32_t code = KVX_OK;
        {
            Shortage const armed(m_Shortage);
            code = function(target.m_Handle);
        }
        require(isPublishedCode(code), "a flat function returns a published code");
        require((code == KVX_E_BAD_HANDLE) == !isLiving(target.m_Handle, kind),
                "a handle is refused when it is not living");
        require(code != KVX_E_OUT_OF_MEMORY || m_Shortage != 0, "memory is short when an allocation fails");
        return code;
    }

    /// Whether a register holds this living object. A made-up handle may be that of another register.
    [[nodiscard]] bool isLiving(KVX_HANDLE handle, Kind kind) const {
        bool found = false;
        for (Register const& entry : m_Registers) {
            found = found || (entry.m_Handle == handle && entry.m_Kind == kind);
        }
        return found;
    }

    /// The same for a function that makes a message, kept in the next register.
    template <class Call>
    void callMaking(Register const& target, Kind kind, Call function) {
        KVX_HANDLE made = this;
        std::int32_t const code = call(target, kind, [&](KVX_HANDLE handle) { return function(handle, &made); });
        if (code != KVX_OK) {
            require(made == this, "a failed call leaves its result alone");
            return;
        }
        keep(m_Registers[m_Next++ % kRegisters], made, Kind::kMessage);
    }

    /// The same for a function that copies a text out.
    template <class Call>
    void callCopying(Register const& target, Kind kind, Input& input, Call function) {
        static constexpr std::int32_t s_Sizes[] = {0, 1, 2, 8, 40, 200, 4096, -1, INT_MIN};
        std::size_t const choice = input.below(12);
        std::int32_t const room = s_Sizes[choice % 9];
        std::vector<char> buffer(room < 0 ? 0 : static_cast<std::size_t>(room), '\x7f');
        std::int32_t size = room;
        bool const hasBuffer = choice < 9;
        std::int32_t const code = call(target, kind, [&](KVX_HANDLE handle) {
            return function(handle, choice == 11 ? nullptr : &size, hasBuffer ? buffer.data() : nullptr);
        });
        require(code != KVX_OK || choice != 11, "a text needs a size");
        if (code == KVX_OK && hasBuffer) {
            require(size > 0 && size <= room, "a copied text fits");
            requireEqual(static_cast<std::int64_t>(std::strlen(buffer.data())), size - 1, "length of a copied text");
        } else {
            require(buffer.empty() || buffer[0] == '\x7f', "nothing is copied otherwise");
        }
    }

    /// Destroys the register's object. Its handle is stale from now on.
    void retire(Register& entry) {
        destroyLiving(entry);
        if (entry.m_Kind != Kind::kNone) {
            m_Stale.insert(entry.m_Handle);
            entry.m_Kind = Kind::kNone;
        }
    }

    static void destroyLiving(Register const& entry) {
        switch (entry.m_Kind) {
            case Kind::kSetup:
                DestroyConfigurationSetup(entry.m_Handle);
                break;
            case Kind::kFactory:
                DestroyMessageFactory(entry.m_Handle);
                break;
            case Kind::kMessage:
                DestroyMessageObject(entry.m_Handle);
                break;
            case Kind::kNone:
                break;
        }
    }

    void keep(Register& target, KVX_HANDLE handle, Kind kind) {
        require(m_Stale.count(handle) == 0, "a new object has none of the last handles");
        retire(target);
        target = {handle, kind};
    }

    void make(Register& target, Kind kind, KVX_HANDLE (*create)()) {
        KVX_HANDLE made = nullptr;
        {
            Shortage const armed(m_Shortage);
            made = create();
        }
        require(made != nullptr || m_Shortage != 0, "an object is made when there is memory");
        if (made != nullptr) {
            keep(target, made, kind);
        }
    }

    /// The register keeps the handle, which is stale then. Any other handle is ignored.
    void destroy(Register& target, Kind kind, void (*destroyer)(KVX_HANDLE)) {
        Shortage const armed(m_Shortage);
        destroyer(target.m_Handle);
        for (Register& entry : m_Registers) {
            if (entry.m_Handle == target.m_Handle && entry.m_Kind == kind) {
                entry.m_Kind = Kind::kNone;
                m_Stale.insert(entry.m_Handle);
            }
        }
    }

    /// Makes the handle point beside or into its object, which is destroyed, or anywhere.
    void misplace(Register& target, Input& input) {
        retire(target);
        std::size_t const offset = input.below(129);
        auto number = reinterpret_cast<std::uintptr_t>(target.m_Handle) + offset;
        if (offset == 128) {
            std::string const bytes = input.take(sizeof number);
            number = 0;
            std::memcpy(&number, bytes.data(), bytes.size());
        }
        target.m_Handle = reinterpret_cast<KVX_HANDLE>(number);
    }

    void errorText(Input& input) {
        std::int32_t code = 0;
        std::string const bytes = input.take(sizeof code);
        std::memcpy(&code, bytes.data(), bytes.size());
        char text[200] = {};
        std::int32_t size = sizeof text;
        Shortage const armed(m_Shortage);
        require(KVX_GetErrorName(code) != nullptr, "every code has a name or an empty text");
        static_cast<void>(KVX_GetErrorStringFromResult(code, &size, text));  // its result is of no family of codes
        require(std::strlen(text) < sizeof text, "a text is terminated");
    }

    void answer(Input& input) { m_Network.add({"HTTP/1.0 200 OK\r\n\r\n" + input.line(), {}, 0, false, 0}); }

    void use(Register const& target, Input& input) {
        static constexpr char const* s_Files[] = {"config.xml", "default.xml", "settings.xml", "keys/current", "keys"};
        std::string const path = directory().path() + (input.below(8) == 0 ? "/config.xml" : "");
        std::string const a = upToZero(input.line());
        std::string const b = upToZero(input.line());
        char const* const first = a == "-" ? nullptr : a.c_str();
        char const* const second = b.c_str();
        char const* const file = s_Files[input.below(5)];
        switch (input.below(16)) {
            case 0:
                call(target, Kind::kSetup,
                     [&](KVX_HANDLE h) { return ConfigurationSetup_SetConfiguration(h, path.c_str()); });
                break;
            case 1:
                // The network refuses what is not answered; a set-up without a path is refused before.
                call(target, Kind::kSetup, [&](KVX_HANDLE h) {
                    return ConfigurationSetup_Reconfigure(h, "http://127.0.0.1/", first, second);
                });
                break;
            case 2:
                call(target, Kind::kSetup,
                     [&](KVX_HANDLE h) { return ConfigurationSetup_SetOption(h, first, second); });
                break;
            case 3:
                callCopying(target, Kind::kSetup, input, [&](KVX_HANDLE h, std::int32_t* size, char* out) {
                    return ConfigurationSetup_GetAttribute(h, file, first, size, out);
                });
                break;
            case 4:
                call(target, Kind::kSetup,
                     [&](KVX_HANDLE h) { return ConfigurationSetup_SetAttribute(h, file, first, second); });
                break;
            case 5:
                call(target, Kind::kFactory, [&](KVX_HANDLE h) { return MessageFactory_Open(h, path.c_str()); });
                break;
            case 6:
                makeMessage(target, first, second, input);
                break;
            case 7:
                call(target, Kind::kMessage, [&](KVX_HANDLE h) { return MessageObject_Open(h, path.c_str()); });
                break;
            case 8:
                call(target, Kind::kMessage,
                     [&](KVX_HANDLE h) { return MessageObject_SetAttribute(h, first, second); });
                break;
            case 9:
                callCopying(target, Kind::kMessage, input, [&](KVX_HANDLE h, std::int32_t* size, char* out) {
                    return MessageObject_GetAttribute(h, first, size, out);
                });
                break;
            case 10:
                callCopying(target, Kind::kMessage, input, &MessageObject_GetURL);
                break;
            case 11:
                call(target, Kind::kMessage, &MessageObject_Capture);
                break;
            case 12:
                callMaking(target, Kind::kMessage, &MessageObject_Execute);
                break;
            case 13:
            case 14:
                call(target, Kind::kMessage, [&](KVX_HANDLE h) { return MessageObject_FromString(h, first); });
                break;
            default:
                callCopying(target, Kind::kMessage, input, &MessageObject_ToString);
        }
    }

    /// A factory without a path would use the current directory, which is not this target's.
    void makeMessage(Register const& target, char const* first, char const* second, Input& input) {
        std::string const path = directory().path();
        if (call(target, Kind::kFactory, [&](KVX_HANDLE h) { return MessageFactory_Open(h, path.c_str()); }) !=
            KVX_OK) {
            return;
        }
        switch (input.below(4)) {
            case 0:
                callMaking(target, Kind::kFactory, &MessageFactory_CreatePayInit);
                break;
            case 1:
                callMaking(target, Kind::kFactory, [&](KVX_HANDLE h, KVX_HANDLE* out) {
                    return MessageFactory_VerifyPayConfirm(h, first, second, out);
                });
                break;
            case 2:
                callMaking(target, Kind::kFactory, [&](KVX_HANDLE h, KVX_HANDLE* out) {
                    return MessageFactory_CreatePayComplete(h, first, second, out);
                });
                break;
            default:
                callMaking(target, Kind::kFactory,
                           [&](KVX_HANDLE h, KVX_HANDLE* out) { return MessageFactory_CreateRequest(h, first, out); });
        }
    }

    Register m_Registers[kRegisters];
    std::set<KVX_HANDLE> m_Stale;  ///< Of objects that were destroyed.
    std::size_t m_Next = 0;        ///< The register of the next message that a call makes.
    std::size_t m_Shortage = 0;
    ScriptedNetwork m_Network;
};

}  // namespace

void runTarget(Input input) {
    Machine machine;
    for (int step = 0; step < kMaxSteps && !input.isEmpty(); ++step) {
        machine.step(input);
    }
    machine.check();
}

}  // namespace kvxfuzz
