// `tallowin complete` and `tallowin request`: messages that are signed, sent, and answered.

#include "tools/commands.h"
#include "tools/sending.h"
#include "tools/toolobjects.h"

namespace tool {

namespace {

struct CompleteOptions {
    std::string m_Id;
    std::string m_Token;
    std::vector<std::string> m_Attributes;
};

struct RequestOptions {
    std::string m_Type;
    std::vector<std::string> m_Attributes;
};

Attributes parsed(std::vector<std::string> const& texts) {
    Attributes attributes;
    for (std::string const& text : texts) {
        attributes.push_back(nameAndValue(text));
    }
    return attributes;
}

void send(Session& session, KVX_HANDLE handle, Attributes const& attributes) {
    MessageObject const message(handle);
    for (auto const& [name, value] : attributes) {
        setAttribute(message, name, value);
    }
    sendAndReport(session, message);
}

void complete(Session& session, CompleteOptions const& options) {
    Attributes const attributes = parsed(options.m_Attributes);
    FactoryObject const factory = openFactory(session.accountDirectory());
    session.streams().requireOutput();
    KVX_HANDLE handle = nullptr;
    require(MessageFactory_CreatePayComplete(factory.get(), options.m_Id.c_str(), options.m_Token.c_str(), &handle),
            "cannot make the completion");
    send(session, handle, attributes);
}

void request(Session& session, RequestOptions const& options) {
    Attributes const attributes = parsed(options.m_Attributes);
    FactoryObject const factory = openFactory(session.accountDirectory());
    session.streams().requireOutput();
    KVX_HANDLE handle = nullptr;
    require(MessageFactory_CreateRequest(factory.get(), options.m_Type.c_str(), &handle), "cannot make the request");
    send(session, handle, attributes);
}

void addAttributes(CLI::App& command, std::vector<std::string>& attributes) {
    command.add_option("--set", attributes, "another attribute of the message; repeatable")
        ->type_name("NAME=VALUE")
        ->allow_extra_args(false);
}

}  // namespace

void addComplete(CommandLine& line) {
    auto const options = std::make_shared<CompleteOptions>();
    CLI::App* const command = addCommand(line, line.m_App, "complete", "complete a payment", Needs::kDirectory,
                                         [options](Session& session) { complete(session, *options); });
    command->footer("Sends a PayComplete request and prints the attributes of the response.");
    command->add_option("--id", options->m_Id, "the service's number of the payment: ID of the confirmation")
        ->type_name("ID")
        ->required()
        ->check(notEmpty());
    command->add_option("--token", options->m_Token, "the payment's token")
        ->type_name("TOKEN")
        ->required()
        ->check(notEmpty());
    addAttributes(*command, options->m_Attributes);
}

void addRequest(CommandLine& line) {
    auto const options = std::make_shared<RequestOptions>();
    CLI::App* const command = addCommand(line, line.m_App, "request", "send a request of any type", Needs::kDirectory,
                                         [options](Session& session) { request(session, *options); });
    command->footer(
        "Sends a signed request of the type TYPE, which becomes TYPERequest, and prints the attributes of the "
        "response.");
    command->add_option("type", options->m_Type, "type of the message, such as Status for a StatusRequest")
        ->type_name("TYPE")
        ->required()
        ->check(notEmpty());
    addAttributes(*command, options->m_Attributes);
}

}  // namespace tool
