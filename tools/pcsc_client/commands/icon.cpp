#include <fstream>
#include <memory>

#include "allocated_buffer.h"
#include "commands/commands.h"
#include "failure.h"
#include "output.h"
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

void addIcon(CLI::App& app, Session& session) {
    CLI::App* const command = app.add_subcommand("icon", "Write a reader's icon to a file");
    const auto options = std::make_shared<IconOptions>();
    addReaderOption(*command, options->reader);
    command->add_option("--file", options->file, "the file to write")->required();
    command->callback([&session, options] {
        const std::string reader = session.resolveReader(options->reader);
        AllocatedBuffer icon(session.context());
        check("SCardGetReaderIcon", SCardGetReaderIconA(session.context(), reader.c_str(),
                                                        icon.byteDestination(), icon.length()));
        writeFile(options->file, icon.bytes());
        printLine("icon of " + std::to_string(icon.bytes().size()) + " bytes written to " +
                  options->file);
    });
}

}  // namespace tez::client
