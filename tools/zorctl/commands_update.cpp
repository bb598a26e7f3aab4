// update: writes a firmware image to a focuser over USB or Bluetooth.
#include "ble.h"
#include "commands.h"
#include "device.h"
#include "interrupt.h"
#include "progress.h"

#include <CLI/CLI.hpp>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>

namespace zorctl {
namespace {

using namespace std::chrono_literals;

constexpr std::size_t kChunkBytes = 55; // the most one ZOR_HID_FILE_BUF carries

// Far beyond any focuser's firmware; a larger file is not an image.
constexpr std::size_t kMaxImageBytes = 4 << 20;

[[noreturn]] void cannotRead(const std::string &path, const std::string &why)
{
    throw UserError("cannot read the firmware image " + path + ": " + why);
}

// Only a regular file of a plausible size is read: /dev/zero or a pipe
// would otherwise be read until memory runs out.
std::vector<unsigned char> readImage(const std::string &path)
{
    struct File {
        int fd;
        ~File() { ::close(fd); }
    };
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        cannotRead(path, std::strerror(errno));
    const File file{fd};
    struct stat info {};
    if (fstat(fd, &info) != 0)
        cannotRead(path, std::strerror(errno));
    if (S_ISDIR(info.st_mode))
        cannotRead(path, "it is a directory");
    if (!S_ISREG(info.st_mode))
        cannotRead(path, "it is not a regular file");
    if (static_cast<std::uintmax_t>(info.st_size) > kMaxImageBytes)
        cannotRead(path, std::to_string(info.st_size) + " bytes is more than the " +
                             std::to_string(kMaxImageBytes >> 20) + " MiB a firmware image can have");
    std::vector<unsigned char> image(static_cast<std::size_t>(info.st_size));
    std::size_t done = 0;
    while (done < image.size()) {
        const ssize_t n = ::read(fd, image.data() + done, image.size() - done);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            cannotRead(path, std::strerror(errno));
        if (n == 0)
            break; // the file shrank meanwhile
        done += static_cast<std::size_t>(n);
    }
    image.resize(done);
    if (image.empty())
        throw UserError(path + " is empty");
    return image;
}

std::string bytesDetail(std::size_t done, std::size_t total)
{
    return std::to_string(done) + " of " + std::to_string(total) + " bytes";
}

// After the update the focuser restarts into the new firmware and comes back
// on the bus; this waits for it (at most 10 s) and reports its version.
void awaitRestart(int id)
{
    const auto deadline = std::chrono::steady_clock::now() + 10s;
    while (std::chrono::steady_clock::now() < deadline && sleepUnlessInterrupted(250ms)) {
        const int count = ZORGetNum();
        for (int index = 0; index < count; ++index) {
            int found = -1;
            if (ZORGetID(index, &found) != ZOR_SUCCESS || found != id || ZOROpen(id) != ZOR_SUCCESS)
                continue;
            unsigned char major = 0, minor = 0, build = 0;
            const ZOR_ERROR_CODE code = ZORGetFirmwareVersion(id, &major, &minor, &build);
            ZORClose(id);
            if (code == ZOR_SUCCESS) {
                std::printf("Focuser %d is back with firmware %s.\n", id,
                            FirmwareVersion{major, minor, build}.text().c_str());
                return;
            }
        }
    }
    std::printf("Focuser %d has not come back yet; 'zorctl list' shows when it has.\n", id);
}

// Writes the image with `writeChunk`, in chunks of at most `chunkBytes`
// (which fit the Buffer record), under a progress bar; false when Ctrl-C
// stopped it. The first chunk the focuser refuses ends the update with its
// code.
template <typename Buffer>
bool writeChunks(int id, const std::vector<unsigned char> &image, std::size_t chunkBytes,
                 ZOR_ERROR_CODE (*writeChunk)(int, Buffer))
{
    ProgressBar bar(stdout, "writing");
    std::size_t done = 0;
    while (done < image.size()) {
        if (interrupted()) {
            bar.finish(static_cast<double>(done) / image.size(), bytesDetail(done, image.size()));
            std::printf(
                "Interrupted: the focuser stays in update mode without a complete image; run the update "
                "again to finish it.\n");
            return false;
        }
        Buffer chunk{};
        const std::size_t n = std::min(chunkBytes, image.size() - done);
        chunk.Length = static_cast<int32_t>(n);
        std::memcpy(chunk.Data, image.data() + done, n);
        check(writeChunk(id, chunk), "writing the image at byte " + std::to_string(done));
        done += n;
        bar.update(static_cast<double>(done) / image.size(), bytesDetail(done, image.size()));
    }
    bar.finish(1.0, bytesDetail(done, image.size()));
    return true;
}

[[noreturn]] void cannotUpdate(int id, const FirmwareVersion &fw, const char *link, const char *needed)
{
    throw Failure("focuser " + std::to_string(id) + " (firmware " + fw.text() + ") cannot be updated over " +
                      link + "; that needs firmware " + needed + " or later",
                  ZOR_ERROR_NOT_SUPPORTED);
}

int runUsbUpdate(int id, const std::vector<unsigned char> &image)
{
    Focuser f(id);
    const FirmwareVersion fw = f.firmware();
    const ZOR_ERROR_CODE start = ZORHidStartUpdate(id);
    if (start == ZOR_ERROR_NOT_SUPPORTED)
        cannotUpdate(id, fw, "USB", "3.7.0");
    check(start, "starting the update");
    if (!writeChunks(id, image, kChunkBytes, ZORHidWriteUpdateFile))
        return kInterruptedExit;

    const ZOR_ERROR_CODE end = ZORHidEndUpdate(id);
    // An answer to the end request (12, a code of its own) means the focuser
    // did not restart into the new image.
    if (end == 12)
        throw UserError(
            "the focuser answered the end of the update instead of restarting: it kept firmware " +
            fw.text());
    check(end, "ending the update");
    f.close();
    std::printf("Image of %zu bytes written; focuser %d restarts with it.\n", image.size(), id);
    awaitRestart(id);
    return 0;
}

// The focuser takes the image as announced and restarts into it after the
// last byte, which ends the Bluetooth link.
int runBleUpdate(int id, const std::vector<unsigned char> &image)
{
    const FirmwareVersion fw = Focuser(id).firmware();
    const ZOR_ERROR_CODE start = ZORBLEStartUpdate(id, static_cast<int>(image.size()));
    if (start == ZOR_ERROR_NOT_SUPPORTED)
        cannotUpdate(id, fw, "Bluetooth", "3.8.2");
    check(start, "starting the update");
    if (!writeChunks(id, image, sizeof(ZOR_BLE_FILE_BUF::Data), ZORBLEWriteUpdateFile))
        return kInterruptedExit;
    std::printf("Image of %zu bytes written; the focuser restarts with it and ends the Bluetooth link.\n",
                image.size());
    return 0;
}

int runUpdate(int id, const std::string &path)
{
    const std::vector<unsigned char> image = readImage(path);
    catchInterrupt();
    return isBluetoothId(id) ? runBleUpdate(id, image) : runUsbUpdate(id, image);
}

} // namespace

void addUpdate(CLI::App &app, Commands &commands)
{
    struct UpdateArgs {
        int id = 0;
        std::string file;
    };
    auto args = std::make_shared<UpdateArgs>();
    CLI::App *update = app.add_subcommand(
        "update", "Write a firmware image to a focuser: over USB from firmware 3.7.0, over Bluetooth (--ble) from 3.8.2");
    addIdArgument(*update, args->id);
    update->add_option("FILE", args->file, "The firmware image")->required();
    commands.push_back({update, [args] { return runUpdate(args->id, args->file); }, &args->id});
}

} // namespace zorctl
