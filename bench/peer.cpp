// Payments and confirmations with pugixml and OpenSSL, as docs/formats.md describes them.
#include "bench/peer.h"

#include <uuid/uuid.h>

#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <pugixml.hpp>

#include "bench/order.h"
#include "bench/plain.h"
#include "bench/require.h"

namespace kvxbench::peer {

namespace {

constexpr char const* kFromDefaults[] = {"ALLOWCOLLECT",  "DELIVERY",        "LANGID",   "SUCCESSLINK",
                                         "NOTIFYADDRESS", "DEFAULTVALIDITY", "BACKLINK", "FAILLINK"};

/// Parses `text` into `document` and returns its root.
pugi::xml_node parse(pugi::xml_document& document, std::string const& text) {
    require(static_cast<bool>(document.load_buffer(text.data(), text.size())), "not a document");
    return document.first_child();
}

std::string textOf(pugi::xml_document const& document) {
    struct Writer : pugi::xml_writer {
        void write(void const* data, std::size_t size) override { m_Text.append(static_cast<char const*>(data), size); }
        std::string m_Text;
    } writer;
    document.save(writer, "", pugi::format_raw | pugi::format_no_declaration);
    return writer.m_Text;
}

std::string freshToken() {
    uuid_t bytes;
    uuid_generate(bytes);
    return plain::toHex({bytes, bytes + sizeof bytes});
}

std::string expiry(char const* ttl) {
    std::time_t const when = std::time(nullptr) + std::strtol(ttl, nullptr, 10);
    std::tm utc = {};
    ::gmtime_r(&when, &utc);
    char text[32];
    std::strftime(text, sizeof text, "%Y%m%d %H:%M:%S", &utc);
    return text;
}

/// Whether the merchant has written settings. Those that are read here change nothing about a message.
bool hasSettings(std::string const& directory) {
    return std::ifstream(directory + "/settings.xml").is_open();
}

}  // namespace

std::string paymentUrl(std::string const& directory) {
    require(std::filesystem::is_directory(directory) && !hasSettings(directory), "another directory is expected");
    std::string const keyId = plain::readFile(directory + "/keys/current");
    pugi::xml_document defaultsDocument;
    pugi::xml_node const defaults = parse(defaultsDocument, plain::readFile(directory + "/default.xml"));
    pugi::xml_document configDocument;
    pugi::xml_node const config = parse(configDocument, plain::readFile(directory + "/config.xml"));

    pugi::xml_document document;
    pugi::xml_node message = document.append_child("KVX");
    auto const set = [&message](char const* name, char const* value) {
        message.append_attribute(name).set_value(value);
    };
    set("MSGTYPE", "PayInit");
    set("KEYID", keyId.c_str());
    set("TOKEN", freshToken().c_str());
    for (char const* const name : kFromDefaults) {
        set(name, defaults.attribute(name).value());
    }
    set("EXPIRATION", expiry(defaults.attribute("PAYINITTTL").value()).c_str());
    for (Field const& field : kOrder) {
        set(field.m_Name, field.m_Value);
    }
    std::string const text = textOf(document);
    std::string const signature = plain::sign(text, plain::readFile(directory + "/keys/private/" + keyId));
    return config.attribute("VTURL").value() + ("?DATA=" + plain::percentEncode(text)) + "&SIGNATURE=" + signature;
}

bool verifies(std::string const& directory, std::string const& data, std::string const& signature) {
    require(std::filesystem::is_directory(directory) && !hasSettings(directory), "another directory is expected");
    pugi::xml_document document;
    pugi::xml_node message = parse(document, data);
    std::string const keyId = message.attribute("KEYID").value();
    if (keyId.empty() || keyId.find('/') != std::string::npos ||
        !plain::verify(data, signature, plain::readFile(directory + "/keys/public/" + keyId))) {
        return false;
    }
    if (std::string(message.attribute("MSGTYPE").value()) == "PayConfirm") {
        message.append_attribute("CONFIGPATH").set_value(directory.c_str());
    }
    return true;
}

}  // namespace kvxbench::peer
