// The sealed form: "1:" and the hexadecimal form of salt, nonce, ciphertext and tag. The key comes from the secret by
// scrypt with the salt, the cipher is AES-256-GCM, and "1:GENERATION" is authenticated with it. The plain text has the
// fields of the state in the order of fieldsOf(), each in hexadecimal and with a line feed behind it. In the store: do
// not change.
#include "ledger/setupstate.h"

#include <openssl/evp.h>

#include <array>
#include <climits>
#include <cstddef>
#include <memory>
#include <new>

#include "ledger/byteforms.h"
#include "ledger/failure.h"
#include "tallowin/codes.h"

namespace ledger {

namespace {

constexpr char kFormat[] = "1:";
constexpr std::size_t kSaltBytes = 16;
constexpr std::size_t kNonceBytes = 12;
constexpr std::size_t kTagBytes = 16;
constexpr std::size_t kKeyBytes = 32;
constexpr std::size_t kFields = 6;

// What scrypt costs: some 32 MB and a tenth of a second.
constexpr std::uint64_t kCost = 1U << 15U;
constexpr std::uint64_t kBlockSize = 8;
constexpr std::uint64_t kParallel = 1;
constexpr std::uint64_t kMaxMemory = std::uint64_t{64} << 20U;

struct FreeCipher {
    void operator()(EVP_CIPHER_CTX* context) const noexcept { EVP_CIPHER_CTX_free(context); }
};

[[noreturn]] void fail(char const* what) {
    throw Failure(KVX_E_CRYPTO, what);
}

unsigned char* bytesIn(std::string& text) {
    return reinterpret_cast<unsigned char*>(text.data());
}

unsigned char const* bytesIn(std::string const& text) {
    return reinterpret_cast<unsigned char const*>(text.data());
}

WipedText keyFrom(std::string const& secret, std::string const& salt) {
    std::string key(kKeyBytes, '\0');
    if (EVP_PBE_scrypt(secret.data(), secret.size(), bytesIn(salt), salt.size(), kCost, kBlockSize, kParallel,
                       kMaxMemory, bytesIn(key), key.size()) != 1) {
        fail("cannot make a key from KEYSECRET");
    }
    return WipedText(std::move(key));
}

enum class Direction { kOpen = 0, kSeal = 1 };

/// One pass of the cipher. When it opens, false says that the text is not what was sealed.
class Cipher {
public:
    Cipher(Direction direction, WipedText const& key, std::string const& nonce) : m_Context(EVP_CIPHER_CTX_new()) {
        if (m_Context == nullptr) {
            throw std::bad_alloc();
        }
        require(EVP_CipherInit_ex(m_Context.get(), EVP_aes_256_gcm(), nullptr, bytesIn(key.get()), bytesIn(nonce),
                                  static_cast<int>(direction)));
    }

    void authenticate(std::string const& text) {
        int count = 0;
        require(EVP_CipherUpdate(m_Context.get(), nullptr, &count, bytesIn(text), static_cast<int>(text.size())));
    }

    WipedText pass(std::string const& in) {
        if (in.size() > INT_MAX) {
            fail("the text is too long");
        }
        std::string out(in.size(), '\0');
        int count = 0;
        require(EVP_CipherUpdate(m_Context.get(), bytesIn(out), &count, bytesIn(in), static_cast<int>(in.size())));
        return WipedText(std::move(out));
    }

    std::string tag() {
        std::string tag(kTagBytes, '\0');
        require(end());
        require(EVP_CIPHER_CTX_ctrl(m_Context.get(), EVP_CTRL_GCM_GET_TAG, kTagBytes, tag.data()));
        return tag;
    }

    bool hasTag(std::string tag) {
        require(EVP_CIPHER_CTX_ctrl(m_Context.get(), EVP_CTRL_GCM_SET_TAG, kTagBytes, tag.data()));
        return end() == 1;
    }

private:
    static void require(int result) {
        if (result != 1) {
            fail("the cipher fails");
        }
    }

    int end() {
        unsigned char nothing[kTagBytes];
        int count = 0;
        return EVP_CipherFinal_ex(m_Context.get(), nothing, &count);
    }

    std::unique_ptr<EVP_CIPHER_CTX, FreeCipher> m_Context;
};

std::array<std::string const*, kFields> fieldsOf(SetupState const& state) {
    return {&state.m_Config, &state.m_ServiceKeyId, &state.m_ServiceKey,
            &state.m_KeyId,  &state.m_PublicKey,    &state.m_PrivateKey.get()};
}

std::string authenticated(std::int64_t generation) {
    return kFormat + std::to_string(generation);
}

}  // namespace

std::string SetupState::fingerprint() const {
    return hexOf(sha256Of(bytesOf(m_PublicKey)));
}

std::string sealed(SetupState const& state, std::string const& secret, std::int64_t generation) {
    std::size_t length = 0;
    for (std::string const* const field : fieldsOf(state)) {
        length += 2 * field->size() + 1;
    }
    std::string text;
    text.reserve(length);  // so that no copy of the private key stays behind
    for (std::string const* const field : fieldsOf(state)) {
        text += WipedText(hexOf(*field)).get();
        text += '\n';
    }
    WipedText const plain(std::move(text));
    std::string const salt = randomBytes(kSaltBytes);
    std::string const nonce = randomBytes(kNonceBytes);
    Cipher cipher(Direction::kSeal, keyFrom(secret, salt), nonce);
    cipher.authenticate(authenticated(generation));
    WipedText const encrypted = cipher.pass(plain.get());
    return kFormat + hexOf(salt + nonce + encrypted.get() + cipher.tag());
}

SetupState unsealed(std::string const& text, std::string const& secret, std::int64_t generation) {
    constexpr char kWrong[] =
        "the key that another server has renewed cannot be opened: KEYSECRET is another there, or the store is damaged";
    std::size_t const start = sizeof kFormat - 1;
    std::string const bytes = text.compare(0, start, kFormat) == 0 ? bytesOf(text.substr(start)) : "";
    if (bytes.size() < kSaltBytes + kNonceBytes + kTagBytes) {
        fail(kWrong);
    }
    std::string const salt = bytes.substr(0, kSaltBytes);
    std::string const nonce = bytes.substr(kSaltBytes, kNonceBytes);
    std::size_t const begin = kSaltBytes + kNonceBytes;
    std::string const encrypted = bytes.substr(begin, bytes.size() - begin - kTagBytes);
    Cipher cipher(Direction::kOpen, keyFrom(secret, salt), nonce);
    cipher.authenticate(authenticated(generation));
    WipedText const plain = cipher.pass(encrypted);
    if (!cipher.hasTag(bytes.substr(bytes.size() - kTagBytes))) {
        fail(kWrong);
    }
    std::array<WipedText, kFields> fields;
    std::size_t at = 0;
    for (WipedText& field : fields) {
        std::size_t const end = plain.get().find('\n', at);
        if (end == std::string::npos) {
            fail(kWrong);
        }
        field = WipedText(bytesOf(WipedText(plain.get().substr(at, end - at)).get()));
        at = end + 1;
    }
    SetupState state;
    state.m_Config = fields[0].get();
    state.m_ServiceKeyId = fields[1].get();
    state.m_ServiceKey = fields[2].get();
    state.m_KeyId = fields[3].get();
    state.m_PublicKey = fields[4].get();
    state.m_PrivateKey = std::move(fields[5]);
    return state;
}

}  // namespace ledger
