#include "sandbox/service/keyring.h"

#include <openssl/evp.h>

#include <cstddef>
#include <utility>

#include "sandbox/crypto/signature.h"

namespace sandbox {

namespace {

constexpr char kIdentifierStart[] = "1-SERVER-";

}  // namespace

KeyRing::KeyRing(Store& store, ServiceClock const& clock, unsigned bits)
    : m_Store(store), m_Clock(clock), m_Bits(bits) {
    reload();
    if (m_Keys.empty()) {
        add(1);
    }
}

void KeyRing::reload() {
    std::vector<Key> keys;
    for (StoredServerKey const& stored : m_Store.serverKeys()) {
        keys.push_back(
            std::make_shared<ServerKey const>(ServerKey{stored.m_Id, readPrivateKeyDer(stored.m_PrivateDer)}));
    }
    std::lock_guard<std::mutex> const lock(m_Mutex);
    m_Keys = std::move(keys);
}

KeyRing::Key KeyRing::current() const {
    std::lock_guard<std::mutex> const lock(m_Mutex);
    return m_Keys.back();
}

KeyRing::Key KeyRing::find(std::string const& id) const {
    for (Key const& key : all()) {
        if (key->m_Id == id) {
            return key;
        }
    }
    return nullptr;
}

std::vector<KeyRing::Key> KeyRing::all() const {
    std::lock_guard<std::mutex> const lock(m_Mutex);
    return m_Keys;
}

KeyRing::Key KeyRing::rotate() {
    std::lock_guard<std::mutex> const lock(m_Mutex);
    return add(m_Keys.size() + 1);
}

KeyRing::Key KeyRing::stale() {
    std::lock_guard<std::mutex> const lock(m_Mutex);
    if (m_Keys.size() > 1) {
        return m_Keys[m_Keys.size() - 2];
    }
    return std::make_shared<ServerKey const>(ServerKey{std::string(kIdentifierStart) + "0", makeSigningKey(m_Bits)});
}

bool KeyRing::reserves(std::string const& id) {
    return id.compare(0, sizeof kIdentifierStart - 1, kIdentifierStart) == 0;
}

KeyRing::Key KeyRing::impostor() {
    std::lock_guard<std::mutex> const lock(m_Mutex);
    return std::make_shared<ServerKey const>(ServerKey{m_Keys.back()->m_Id, makeSigningKey(m_Bits)});
}

KeyRing::Key KeyRing::add(std::size_t number) {
    Key key =
        std::make_shared<ServerKey const>(ServerKey{kIdentifierStart + std::to_string(number), makeSigningKey(m_Bits)});
    m_Store.addServerKey({key->m_Id, privateKeyDer(key->m_Key.get())}, m_Clock.text());
    m_Keys.push_back(key);
    return key;
}

}  // namespace sandbox
