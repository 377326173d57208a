#include <memory>
#include <rpc.h>

#include "allocated_buffer.h"
#include "commands/commands.h"
#include "failure.h"
#include "hex_option.h"

namespace tez::client {
namespace {

struct CacheOptions {
    std::string card;
    std::string name;
    std::string data;
    DWORD freshness = 0;
};

bool parseIdentifier(const std::string& text, UUID& identifier) {
    std::string digits = text;
    auto* const parsed = reinterpret_cast<RPC_CSTR>(digits.data());
    return UuidFromStringA(parsed, &identifier) == RPC_S_OK;
}

UUID identifierOf(const CacheOptions& options) {
    UUID identifier = {};
    parseIdentifier(options.card, identifier);
    return identifier;
}

void putItem(Client& client, CacheOptions options) {
    UUID card = identifierOf(options);
    Bytes data = *parseHex(options.data);
    check("SCardWriteCache",
          SCardWriteCacheA(client.session.context(), &card, options.freshness, options.name.data(),
                           data.data(), static_cast<DWORD>(data.size())));
    client.report.line("put into the cache: " + std::to_string(data.size()) + " bytes");
    client.report.data()["bytes"] = data.size();
}

void getItem(Client& client, CacheOptions options) {
    UUID card = identifierOf(options);
    const SCARDCONTEXT context = client.session.context();
    AllocatedBuffer data(context);
    check("SCardReadCache", SCardReadCacheA(context, &card, options.freshness, options.name.data(),
                                            data.byteDestination(), data.length()));
    client.report.field("data", formatHex(data.bytes()));
    client.report.field("text", printable(data.bytes()));
    client.report.data()["data"] = formatHex(data.bytes());
    client.report.data()["text"] = printable(data.bytes());
}

/// What `get` and `put` have in common: CARD, NAME and --freshness.
CLI::App* addItemCommand(CLI::App& cache, Client& client, const std::string& name,
                         const std::string& purpose, CacheOptions& options) {
    CLI::App* const command = cache.add_subcommand(name, purpose);
    const auto isIdentifier = [](const std::string& text) -> std::string {
        UUID identifier = {};
        return parseIdentifier(text, identifier) ? "" : "no identifier of a card: " + text;
    };
    command
        ->add_option("CARD", options.card,
                     "the card's identifier, such as "
                     "00112233-4455-6677-8899-AABBCCDDEEFF")
        ->required()
        ->check(CLI::Validator(isIdentifier, "GUID"));
    command->add_option("NAME", options.name, "name of the item")->required();
    command->add_option("--freshness", options.freshness,
                        "counter of the card's changes; 0 when not given");
    client.report.addJsonOption(*command);
    return command;
}

}  // namespace

void addCache(CLI::App& app, Client& client) {
    CLI::App* const cache = app.add_subcommand("cache", "Use the cache of card data");
    cache->require_subcommand(1);
    const auto options = std::make_shared<CacheOptions>();
    addItemCommand(*cache, client, "get", "Print an item", *options)->callback([&client, options] {
        getItem(client, *options);
    });
    CLI::App* const put = addItemCommand(*cache, client, "put", "Store an item", *options);
    put->add_option("HEX", options->data, "its bytes")->required()->check(isHex(1, kLongestApdu));
    put->callback([&client, options] { putItem(client, *options); });
}

}  // namespace tez::client
