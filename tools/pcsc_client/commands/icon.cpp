#include <fstream>
#include <memory>

#include "allocated_buffer.h"
#include "commands/commands.h"
#include "failure.h"
#include "utf8.h"

// The toolchain's <winscard.h> lacks it.
extern "C" LONG WINAPI SCardGetReaderIconA(SCARDCONTEXT hContext, LPCSTR szReaderName,
                                           LPBYTE pbIcon, LPDWORD pcbIcon);

namespace tez::client {
namespace {

struct IconOptions {
    std::string reader;
    std::string file;
};

void writeFile(const std::string& utf8Path, ByteView bytes) {
    std::ofstream file(tools::toPath(utf8Path), std::ios::binary);
    file.write(reinterpret_cast<const char*>(bytes.data()),
               static_cast<std::streamsize>(bytes.size()));
    file.close();
    if (!file) {
        throw Failure("cannot write " + utf8Path);
    }
}

}  // namespace

void addIcon(CLI::App& app, Client& client) {
    CLI::App* const command = app.add_subcommand("icon", "Write a reader's icon to a file");
    const auto options = std::make_shared<IconOptions>();
    addReaderOption(*command, options->reader);
    command->add_option("--file", options->file, "the file to write")->required();
    client.report.addJsonOption(*command);
    command->callback([&client, options] {
        const std::string reader = client.session.resolveReader(options->reader);
        AllocatedBuffer icon(client.session.context());
        check("SCardGetReaderIcon", SCardGetReaderIconA(client.session.context(), reader.c_str(),
                                                        icon.byteDestination(), icon.length()));
        writeFile(options->file, icon.bytes());
        client.report.line("icon of " + std::to_string(icon.bytes().size()) + " bytes written to " +
                           options->file);
        client.report.data()["bytes"] = icon.bytes().size();
        client.report.data()["file"] = options->file;
    });
}

}  // namespace tez::client
