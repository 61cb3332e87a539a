#include "bench/merchant.h"

#include <vector>

#include "bench/order.h"
#include "bench/require.h"

namespace kvxbench {

Merchant::Merchant(std::string const& directory) : m_Factory(CreateMessageFactory()) {
    require(MessageFactory_Open(m_Factory, directory.c_str()) == KVX_OK, "no factory");
}

Merchant::~Merchant() {
    DestroyMessageFactory(m_Factory);
}

KVX_HANDLE Merchant::payment() const {
    KVX_HANDLE message = nullptr;
    require(MessageFactory_CreatePayInit(m_Factory, &message) == KVX_OK, "no payment");
    for (Field const& field : kOrder) {
        require(MessageObject_SetAttribute(message, field.m_Name, field.m_Value) == KVX_OK, "no attribute");
    }
    return message;
}

std::string Merchant::paymentUrl() const {
    constexpr std::int32_t kEnough = 4096;
    KVX_HANDLE message = payment();
    std::string url = urlOf(message, kEnough);
    DestroyMessageObject(message);
    return url;
}

std::string Merchant::urlOf(KVX_HANDLE message, std::int32_t size) {
    std::vector<char> url(static_cast<std::size_t>(size));
    require(MessageObject_GetURL(message, &size, url.data()) == KVX_OK, "no URL");
    return url.data();
}

std::string maskedUrl(std::string url) {
    std::string const length = std::to_string(url.size());
    for (std::string const name : {"TOKEN%3d%22", "EXPIRATION%3d%22"}) {
        std::size_t const found = url.find(name);
        require(found != std::string::npos, "not the URL of a payment");
        std::size_t const begin = found + name.size();
        url.erase(begin, url.find("%22", begin) - begin);
    }
    std::string const signature = "&SIGNATURE=";
    return url.substr(0, url.find(signature) + signature.size()) + length;
}

}  // namespace kvxbench
