#include <memory>

#include "attribute_names.h"
#include "commands/commands.h"
#include "failure.h"
#include "hex.h"

namespace tez::client {
namespace {

struct AttributesOptions {
    std::string reader;
    std::vector<std::string> names;
    bool list = false;
    bool direct = false;
};

void tellAttribute(Report& report, DWORD id, ByteView value) {
    report.line(describeAttribute(id));
    report.field("bytes", formatHex(value));
    Json json = attributeToJson(id);
    json["bytes"] = formatHex(value);
    if (const auto readable = readableValue(id, value)) {
        report.field("value", *readable);
        json["value"] = *readable;
    }
    report.data()["attributes"].push_back(std::move(json));
}

void tellNamed(Report& report, const Card& card, const std::vector<std::string>& names) {
    for (const std::string& name : names) {
        const DWORD id = *parseAttribute(name);
        const auto value = card.attribute(id);
        if (!value) {
            throw Failure("the reader has no attribute " + describeAttribute(id));
        }
        tellAttribute(report, id, *value);
    }
}

void tellAll(Report& report, const Card& card) {
    for (const AttributeName& each : attributeNames()) {
        if (const auto value = card.attribute(each.id)) {
            tellAttribute(report, each.id, *value);
        }
    }
}

}  // namespace

void addAttributes(CLI::App& app, Client& client) {
    CLI::App* const command =
        app.add_subcommand("attributes", "Print the attributes that a reader and its card have");
    const auto options = std::make_shared<AttributesOptions>();
    CLI::Option* const reader = addReaderOption(*command, options->reader)->required(false);
    const auto isAttribute = [](const std::string& text) -> std::string {
        return parseAttribute(text) ? "" : "no attribute: " + text;
    };
    command
        ->add_option(
            "--name", options->names,
            "a name (see --list) or number; may be repeated; all named ones when not given")
        ->check(CLI::Validator(isAttribute, "ATTRIBUTE"))
        ->allow_extra_args(false);
    command->add_flag("--direct", options->direct, "talk to the reader, card or not");
    CLI::Option* const list =
        command->add_flag("--list", options->list, "print the names that there are instead");
    list->excludes(reader);
    client.report.addJsonOption(*command);
    command->callback([&client, options] {
        if (options->list) {
            for (const AttributeName& each : attributeNames()) {
                client.report.line(describeAttribute(each.id));
                client.report.data()["attributes"].push_back(attributeToJson(each.id));
            }
            return;
        }
        if (options->reader.empty()) {
            throw CLI::RequiredError("READER");
        }
        const auto use = [&](const Card& card) {
            options->names.empty() ? tellAll(client.report, card)
                                   : tellNamed(client.report, card, options->names);
        };
        client.session.useCard(options->reader, use,
                               options->direct ? Access::kDirect : Access::kShared);
    });
}

}  // namespace tez::client
