// `tallowin orders`: the order ledger of a shop, for people. List, show and export read; resume and resolve write.

#include <cstddef>
#include <cstdint>

#include "tools/accountkeys.h"
#include "tools/commands.h"
#include "tools/storeoptions.h"
#include "tools/tooltext.h"

namespace tool {

namespace {

constexpr std::size_t kWidth = 16;
constexpr std::int32_t kMaxPage = 1000;
constexpr std::int32_t kMaxJobs = 1000000;

struct ListOptions {
    StoreOptions m_Store;
    std::string m_Filter;
    std::string m_After;
    std::int32_t m_Limit = 100;
};

struct OrderOptions {
    StoreOptions m_Store;
    std::string m_Number;
};

struct ResumeOptions {
    StoreOptions m_Store;
    std::int32_t m_Limit = 1000;
};

struct ResolveOptions {
    StoreOptions m_Store;
    std::string m_Number;
    std::string m_State;
    std::string m_Note;
};

/// A member as text; "-" for null.
std::string textOf(Json const& value) {
    return value.is_null() ? "-" : value.is_string() ? value.get<std::string>() : value.dump();
}

std::string timeOf(Json const& milliseconds) {
    constexpr std::int64_t kNanoseconds = 1000000;
    return milliseconds.is_null() ? "-" : momentText(milliseconds.get<std::int64_t>() * kNanoseconds);
}

Json page(tallowin::Ledger const& ledger, std::string const& filter, std::string const& after, std::int32_t limit) {
    return Json::parse(attempt("cannot list the orders", [&] { return ledger.listOrders(filter, after, limit); }));
}

void addLine(Session& session, Json const& order) {
    constexpr std::size_t kStateWidth = 20;
    constexpr std::size_t kPriceWidth = 16;
    Json const& reason = order.at("lastReason");
    session.line(padded(textOf(order.at("number")), kWidth) + padded(textOf(order.at("state")), kStateWidth) +
                 padded(textOf(order.at("amount")) + ' ' + textOf(order.at("currency")), kPriceWidth) +
                 timeOf(order.at("created")) + (reason.is_null() ? "" : "  " + textOf(reason)));
}

void list(Session& session, ListOptions const& options) {
    tallowin::Ledger const ledger = openedLedger(session, options.m_Store);
    Json const found = page(ledger, options.m_Filter, options.m_After, options.m_Limit);
    session.json().update(found);
    for (Json const& order : found.at("orders")) {
        addLine(session, order);
    }
    if (!found.at("next").is_null()) {
        session.line("More orders follow: --after " + textOf(found.at("next")), Emphasis::kStrong);
    }
}

void row(Session& session, std::string const& label, std::string const& value) {
    session.line(padded(label, kWidth) + value);
}

void addAttempt(Session& session, Json const& payment) {
    bool const needsPerson = payment.at("attention").get<bool>();
    session.line("attempt " + textOf(payment.at("attempt")) + ": " + textOf(payment.at("state")) +
                     (needsPerson ? ", needs a person" : ""),
                 needsPerson ? Emphasis::kWarning : Emphasis::kStrong);
    row(session, "  token", textOf(payment.at("token")));
    row(session, "  payment", textOf(payment.at("paymentId")));
    row(session, "  begun", timeOf(payment.at("created")));
    row(session, "  expires", timeOf(payment.at("expires")));
    row(session, "  paid", timeOf(payment.at("paid")));
    row(session, "  next job", timeOf(payment.at("due")));
    if (!payment.at("lastCodeName").is_null()) {
        row(session, "  last failure", textOf(payment.at("lastCodeName")));
    }
    if (!payment.at("lastReason").is_null()) {
        row(session, "  its reason", textOf(payment.at("lastReason")));
    }
}

void show(Session& session, OrderOptions const& options) {
    tallowin::Ledger const ledger = openedLedger(session, options.m_Store);
    Json const order = Json::parse(attempt("cannot show the order", [&] { return ledger.getOrder(options.m_Number); }));
    session.json()["order"] = order;
    row(session, "order", textOf(order.at("number")));
    row(session, "state", textOf(order.at("state")));
    row(session, "amount", textOf(order.at("amount")) + ' ' + textOf(order.at("currency")));
    row(session, "begun", timeOf(order.at("created")));
    row(session, "told as paid", timeOf(order.at("told")));
    for (auto const& [name, value] : order.at("attributes").items()) {
        row(session, name, textOf(value));
    }
    for (Json const& payment : order.at("attempts")) {
        addAttempt(session, payment);
    }
}

void resume(Session& session, ResumeOptions const& options) {
    session.streams().requireOutput();
    tallowin::Ledger ledger = openedLedger(session, options.m_Store);
    std::int32_t const done = attempt("the worker stopped", [&] { return ledger.runDue(options.m_Limit); });
    Json const found = page(ledger, "attention", "", kMaxPage);
    session.json()["done"] = done;
    session.json()["attention"] = found.at("orders");
    session.line("Jobs done, failed ones included: " + std::to_string(done), Emphasis::kStrong);
    if (!found.at("orders").empty()) {
        session.line("These orders need a person:", Emphasis::kWarning);
    }
    for (Json const& order : found.at("orders")) {
        addLine(session, order);
    }
}

void resolve(Session& session, ResolveOptions const& options) {
    session.streams().requireOutput();
    tallowin::Ledger ledger = openedLedger(session, options.m_Store);
    attempt("cannot resolve the order", [&] { ledger.resolve(options.m_Number, options.m_State, options.m_Note); });
    session.json()["number"] = options.m_Number;
    session.json()["state"] = options.m_State;
    session.line("Recorded of order " + options.m_Number + ": " + options.m_State + '.', Emphasis::kStrong);
}

void exportOrder(Session& session, OrderOptions const& options) {
    tallowin::Ledger const ledger = openedLedger(session, options.m_Store);
    std::string const evidence =
        attempt("cannot export the order", [&] { return ledger.exportOrder(options.m_Number); });
    session.json()["evidence"] = Json::parse(evidence);
    session.value(evidence);
}

/// Adds a command below "orders" with the options of every one of them.
template <typename Options>
CLI::App* addOrdersCommand(CommandLine& line, CLI::App& orders, char const* name, char const* summary,
                           std::shared_ptr<Options> const& options, void (*run)(Session&, Options const&)) {
    CLI::App* const command = addCommand(line, orders, name, summary, Needs::kDirectory,
                                         [options, run](Session& session) { run(session, *options); });
    addStoreOptions(*command, options->m_Store);
    return command;
}

void addNumber(CLI::App& command, std::string& number) {
    command.add_option("number", number, "number of the order")->type_name("NUMBER")->required()->check(notEmpty());
}

}  // namespace

void addOrders(CommandLine& line) {
    CLI::App* const orders = line.m_App.add_subcommand("orders", "list, show, resume, resolve and export orders");
    orders->require_subcommand(1);
    orders->footer("The orders of a shop that uses the order ledger: its store, and the directory of its account.");

    auto const listed = std::make_shared<ListOptions>();
    CLI::App* const listCommand = addOrdersCommand(line, *orders, "list", "list orders", listed, list);
    listCommand->footer(
        "One line for each order: number, state, amount, when it was begun, and the reason of the last failure. FILTER "
        "is the name of a state, such as waiting or captured, or paid, untold (paid, and the shop has not been told), "
        "undelivered (reported, and not acknowledged), surplus (paid twice) or attention (a person has to look).");
    listCommand->add_option("--filter", listed->m_Filter, "only these orders")->type_name("FILTER")->check(notEmpty());
    listCommand->add_option("--after", listed->m_After, "begin behind this order")
        ->type_name("NUMBER")
        ->check(notEmpty());
    listCommand->add_option("--limit", listed->m_Limit, "how many at most")
        ->type_name("COUNT")
        ->check(CLI::Range(1, kMaxPage))
        ->capture_default_str();

    auto const shown = std::make_shared<OrderOptions>();
    CLI::App* const showCommand =
        addOrdersCommand(line, *orders, "show", "show an order and its payments", shown, show);
    showCommand->footer("A payment that needs a person is marked: see tallowin orders resolve.");
    addNumber(*showCommand, shown->m_Number);

    auto const resumed = std::make_shared<ResumeOptions>();
    CLI::App* const resumeCommand =
        addOrdersCommand(line, *orders, "resume", "do what is due: captures, completions, questions", resumed, resume);
    resumeCommand->footer(
        "Does the work of the shop's worker once. Requires the options that the shop gives to its ledger, such as "
        "--option STATUSTYPE=Status: without STATUSTYPE waiting orders expire without a question. The shop is still "
        "told of the orders that turn out paid. Then lists the orders that need a person.");
    resumeCommand->add_option("--limit", resumed->m_Limit, "how many jobs at most")
        ->type_name("COUNT")
        ->check(CLI::Range(1, kMaxJobs))
        ->capture_default_str();

    auto const resolved = std::make_shared<ResolveOptions>();
    CLI::App* const resolveCommand =
        addOrdersCommand(line, *orders, "resolve", "record what a person found out about an order", resolved, resolve);
    resolveCommand->footer(
        "For an order that needs attention, after a look at the service. STATE is authorised (the payment is captured "
        "again), captured, completed, capture_refused or cancelled (given up; a new attempt may pay the order); "
        "surplus_settled says that the surplus payments have been voided or paid back. The note is stored with the "
        "order: say why, and who you are.");
    addNumber(*resolveCommand, resolved->m_Number);
    resolveCommand->add_option("--state", resolved->m_State, "where the payment is")
        ->type_name("STATE")
        ->required()
        ->check(notEmpty());
    resolveCommand->add_option("--note", resolved->m_Note, "why, and who says so")
        ->type_name("TEXT")
        ->required()
        ->check(notEmpty());

    auto const exported = std::make_shared<OrderOptions>();
    CLI::App* const exportCommand =
        addOrdersCommand(line, *orders, "export", "print the evidence of an order as JSON", exported, exportOrder);
    exportCommand->footer(
        "Every transition with message, signature, public key, time and cause. A third party can verify the signatures "
        "with the program openssl.");
    addNumber(*exportCommand, exported->m_Number);
}

}  // namespace tool
