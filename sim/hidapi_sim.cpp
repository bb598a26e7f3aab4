// hidapi's C API over the virtual focusers. Each function answers the way the
// Linux hidraw backend does for a real focuser: the same return values and
// the same hid_error texts. The device offers feature reports only, so the
// calls for input and output reports fail as the kernel would make them fail.
#include "sim/sim_registry.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <thread>

#include "ZOR_focuser.h"

#pragma GCC visibility push(default)
#include <hidapi.h>

extern "C" {
// Newer than the hidapi headers this may be built with.
#if HID_API_VERSION < HID_API_MAKE_VERSION(0, 14, 0)
int hid_get_report_descriptor(hid_device *dev, unsigned char *buf, size_t buf_size);
#endif
#if HID_API_VERSION < HID_API_MAKE_VERSION(0, 15, 0)
const wchar_t *hid_read_error(hid_device *dev);
int hid_send_output_report(hid_device *dev, const unsigned char *data, size_t length);
#endif
}
#pragma GCC visibility pop

using namespace zorsim;

namespace {

constexpr const wchar_t *kManufacturer = L"ZOR";
constexpr unsigned short kUsagePage = 0xFF00;
constexpr unsigned short kUsage = 0x0001;

std::atomic<const wchar_t *> globalError{nullptr};

const wchar_t *success() { return internError("Success"); }

void setGlobalError(const std::string &text) { globalError.store(internError(text)); }

wchar_t *wideCopy(const std::string &s)
{
    auto *w = static_cast<wchar_t *>(std::calloc(s.size() + 1, sizeof(wchar_t)));
    std::copy(s.begin(), s.end(), w);
    return w;
}

std::string productName(Model m) { return m == Model::Old ? "ZOR Focuser" : modelString(m); }

std::string serialText(const DeviceState &s)
{
    static const char hex[] = "0123456789ABCDEF";
    std::string t;
    for (uint8_t b : s.serial) {
        t += hex[b >> 4];
        t += hex[b & 0x0F];
    }
    return t;
}

hid_device_info *makeInfo(Registry &r, VirtualDevice &d)
{
    const DeviceState s = d.model.state(r.now());
    auto *info = static_cast<hid_device_info *>(std::calloc(1, sizeof(hid_device_info)));
    info->path = strdup(d.path.c_str());
    info->vendor_id = ZOR_VENDOR_ID;
    info->product_id = ZOR_PRODUCT_ID;
    info->serial_number = wideCopy(serialText(s));
    info->release_number =
        static_cast<unsigned short>((s.firmware / 100) << 8 | (s.firmware / 10 % 10) << 4 | s.firmware % 10);
    info->manufacturer_string = wideCopy("ZOR");
    info->product_string = wideCopy(productName(s.model));
    info->usage_page = kUsagePage;
    info->usage = kUsage;
    info->interface_number = 0;
    info->bus_type = HID_API_BUS_USB;
    return info;
}

void freeInfo(hid_device_info *info)
{
    std::free(info->path);
    std::free(info->serial_number);
    std::free(info->manufacturer_string);
    std::free(info->product_string);
    std::free(info);
}

bool matches(unsigned short want, unsigned short have) { return want == 0 || want == have; }

// The handle is usable: open, and its device has not left the bus since.
bool alive(const hid_device *h)
{
    return h->device && h->device->plugged && h->connection == h->device->connection;
}

int failWith(hid_device *h, const char *what, int code, int error)
{
    h->error.store(internError(std::string(what) + ": " + std::strerror(error)));
    return code;
}

void record(VirtualDevice &d, Transfer::Kind kind, const unsigned char *data, size_t length, int result)
{
    const size_t n = kind == Transfer::GetFeature ? (result > 0 ? static_cast<size_t>(result) : 0) : length;
    if (d.log.size() == kTransferLogLength)
        d.log.pop_front();
    d.log.push_back(Transfer{kind, std::vector<uint8_t>(data, data + (data ? n : 0)), result});
}

// A feature-report transfer: the checks and faults, then (outside the lock)
// the device's answer time, then the firmware's part.
int featureTransfer(hid_device *h, bool send, unsigned char *data, size_t length)
{
    const char *what = send ? "ioctl (SFEATURE)" : "ioctl (GFEATURE)";
    const Transfer::Kind kind = send ? Transfer::SendFeature : Transfer::GetFeature;
    Registry &r = Registry::instance();
    std::chrono::microseconds wait{0};
    bool mute = false;
    {
        std::lock_guard<std::mutex> lock(r.mutex);
        r.refresh();
        if (!r.isHandle(h)) {
            ++r.invalidUses;
            return -1;
        }
        if (!h->device)
            return failWith(h, what, -1, ENODEV);
        VirtualDevice &d = *h->device;
        int result = 0;
        if (!alive(h))
            result = failWith(h, what, -1, ENODEV);
        else if (!data || length == 0)
            result = failWith(h, what, -1, EINVAL);
        else if (Fault &f = send ? d.sendFault : d.readFault; f.count > 0) {
            --f.count;
            result = failWith(h, what, f.code, f.error);
        }
        if (result < 0) {
            record(d, kind, data, length, result);
            return result;
        }
        mute = d.stalled;
        wait = mute ? std::chrono::duration_cast<std::chrono::microseconds>(d.model.config().stallTimeout)
                    : d.latency;
    }
    if (wait.count() > 0)
        std::this_thread::sleep_for(wait);

    std::lock_guard<std::mutex> lock(r.mutex);
    r.refresh();
    if (!r.isHandle(h)) {
        ++r.invalidUses;
        return -1;
    }
    if (!h->device)
        return failWith(h, what, -1, ENODEV);
    VirtualDevice &d = *h->device;
    int result;
    if (!alive(h)) {
        result = failWith(h, what, -1, ENODEV);
    } else if (mute) {
        result = failWith(h, what, -1, ETIMEDOUT);
    } else if (send) {
        const size_t reportSize = static_cast<size_t>(d.model.reportSize());
        if (data[0] != kRequestReportId || length > reportSize) {
            // The device stalls a report it does not have, or one too long.
            result = failWith(h, what, -1, EPIPE);
        } else {
            std::vector<uint8_t> cmd(reportSize - 1, 0);
            std::copy(data + 1, data + length, cmd.begin());
            const Nanos now = r.now();
            FocuserModel::Outcome out = d.model.handleCommand(cmd.data(), cmd.size(), now);
            if (out.reply)
                std::copy(out.reply->begin(), out.reply->end(), d.reply.begin() + 1);
            if (out.restart)
                r.restart(d);
            result = static_cast<int>(length);
        }
    } else if (data[0] != kReplyReportId) {
        result = failWith(h, what, -1, EPIPE);
    } else {
        const size_t n = std::min(length, d.reply.size());
        std::copy(d.reply.begin(), d.reply.begin() + static_cast<long>(n), data);
        if (d.garble > 0) {
            --d.garble;
            for (size_t i = 1; i < 4 && i < n; ++i)
                data[i] = static_cast<unsigned char>(~data[i]);
        }
        result = static_cast<int>(n);
    }
    if (result >= 0)
        h->error.store(success());
    record(d, kind, data, length, result);
    return result;
}

// Runs `f` on a valid handle under the registry lock; -1 for a stale one.
template <typename F> int withHandle(hid_device *h, F &&f)
{
    Registry &r = Registry::instance();
    std::lock_guard<std::mutex> lock(r.mutex);
    r.refresh();
    if (!r.isHandle(h)) {
        ++r.invalidUses;
        return -1;
    }
    return f(r);
}

int copyString(hid_device *h, wchar_t *out, size_t maxlen, const wchar_t *text)
{
    if (!out || maxlen == 0)
        return failWith(h, "hid_get_string", -1, EINVAL);
    std::wcsncpy(out, text, maxlen);
    out[maxlen - 1] = L'\0';
    h->error.store(success());
    return 0;
}

} // namespace

std::vector<uint8_t> zorsim::reportDescriptor(int reportSize)
{
    // Vendor page; feature report 1 carries 16 reply bytes, feature report 3
    // the request bytes after its ID.
    const uint8_t requestBytes = static_cast<uint8_t>(reportSize - 1);
    return {0x06, 0x00, 0xFF,       // Usage Page (Vendor Defined 0xFF00)
            0x09, 0x01,             // Usage (0x01)
            0xA1, 0x01,             // Collection (Application)
            0x15, 0x00,             //   Logical Minimum (0)
            0x26, 0xFF, 0x00,       //   Logical Maximum (255)
            0x75, 0x08,             //   Report Size (8)
            0x85, kReplyReportId,   //   Report ID (1)
            0x95, 16,               //   Report Count (16)
            0x09, 0x01,             //   Usage (0x01)
            0xB1, 0x02,             //   Feature (Data, Variable, Absolute)
            0x85, kRequestReportId, //   Report ID (3)
            0x95, requestBytes,     //   Report Count (15 or 63)
            0x09, 0x02,             //   Usage (0x02)
            0xB1, 0x02,             //   Feature (Data, Variable, Absolute)
            0xC0};                  // End Collection
}

#pragma GCC visibility push(default)
extern "C" {

int hid_init(void)
{
    Registry &r = Registry::instance();
    std::lock_guard<std::mutex> lock(r.mutex);
    if (!r.environmentError.empty()) {
        setGlobalError(r.environmentError);
        return -1;
    }
    return 0;
}

int hid_exit(void) { return 0; }

hid_device_info *hid_enumerate(unsigned short vendor_id, unsigned short product_id)
{
    Registry &r = Registry::instance();
    std::lock_guard<std::mutex> lock(r.mutex);
    r.refresh();
    hid_device_info *head = nullptr;
    hid_device_info **tail = &head;
    if (matches(vendor_id, ZOR_VENDOR_ID) && matches(product_id, ZOR_PRODUCT_ID)) {
        for (auto &d : r.devices()) {
            if (!d->plugged)
                continue;
            *tail = makeInfo(r, *d);
            tail = &(*tail)->next;
        }
    }
    if (!head)
        setGlobalError("No HID devices found in the system.");
    else
        globalError.store(nullptr);
    return head;
}

void hid_free_enumeration(hid_device_info *devs)
{
    while (devs) {
        hid_device_info *next = devs->next;
        freeInfo(devs);
        devs = next;
    }
}

hid_device *hid_open_path(const char *path)
{
    Registry &r = Registry::instance();
    std::lock_guard<std::mutex> lock(r.mutex);
    r.refresh();
    const std::string p = path ? path : "";
    auto it = std::find_if(r.devices().begin(), r.devices().end(),
                           [&](const auto &d) { return d->path == p && d->plugged; });
    int error = ENOENT;
    if (it != r.devices().end() && (*it)->failOpens > 0) {
        --(*it)->failOpens;
        error = (*it)->openError;
    } else if (it != r.devices().end()) {
        VirtualDevice &d = **it;
        auto *h = new hid_device_;
        h->device = &d;
        h->connection = d.connection;
        h->error.store(success());
        h->readError.store(success());
        h->info = makeInfo(r, d);
        ++d.handles;
        r.addHandle(h);
        globalError.store(nullptr);
        return h;
    }
    setGlobalError("Failed to open a device with path '" + p + "': " + std::strerror(error));
    return nullptr;
}

hid_device *hid_open(unsigned short vendor_id, unsigned short product_id, const wchar_t *serial_number)
{
    hid_device_info *list = hid_enumerate(vendor_id, product_id);
    std::string path;
    for (hid_device_info *i = list; i; i = i->next) {
        if (!serial_number || std::wcscmp(serial_number, i->serial_number) == 0) {
            path = i->path;
            break;
        }
    }
    hid_free_enumeration(list);
    if (path.empty()) {
        setGlobalError("Device with requested VID/PID/(SerialNumber) not found");
        return nullptr;
    }
    return hid_open_path(path.c_str());
}

void hid_close(hid_device *dev)
{
    if (!dev)
        return;
    Registry &r = Registry::instance();
    std::lock_guard<std::mutex> lock(r.mutex);
    if (!r.isHandle(dev)) {
        ++r.invalidUses;
        return;
    }
    r.removeHandle(dev);
    if (dev->device)
        --dev->device->handles;
    freeInfo(dev->info);
    delete dev;
}

int hid_send_feature_report(hid_device *dev, const unsigned char *data, size_t length)
{
    // The transfer only reads `data` when sending.
    return featureTransfer(dev, true, const_cast<unsigned char *>(data), length);
}

int hid_get_feature_report(hid_device *dev, unsigned char *data, size_t length)
{
    return featureTransfer(dev, false, data, length);
}

int hid_get_report_descriptor(hid_device *dev, unsigned char *buf, size_t buf_size)
{
    return withHandle(dev, [&](Registry &) {
        if (!alive(dev))
            return failWith(dev, "ioctl (GRDESCSIZE)", -1, ENODEV);
        if (!buf)
            return failWith(dev, "hid_get_report_descriptor", -1, EINVAL);
        const std::vector<uint8_t> desc = reportDescriptor(dev->device->model.reportSize());
        const size_t n = std::min(buf_size, desc.size());
        std::copy(desc.begin(), desc.begin() + static_cast<long>(n), buf);
        dev->error.store(success());
        return static_cast<int>(n);
    });
}

int hid_write(hid_device *dev, const unsigned char *, size_t)
{
    // No output report: the device stalls the transfer.
    return withHandle(dev, [&](Registry &) { return failWith(dev, "write", -1, alive(dev) ? EPIPE : ENODEV); });
}

int hid_send_output_report(hid_device *dev, const unsigned char *, size_t)
{
    return withHandle(dev,
                      [&](Registry &) { return failWith(dev, "ioctl (SOUTPUT)", -1, alive(dev) ? EPIPE : ENODEV); });
}

int hid_get_input_report(hid_device *dev, unsigned char *, size_t)
{
    return withHandle(dev,
                      [&](Registry &) { return failWith(dev, "ioctl (GINPUT)", -1, alive(dev) ? EPIPE : ENODEV); });
}

int hid_read_timeout(hid_device *dev, unsigned char *, size_t, int milliseconds)
{
    // The device has no input report, so nothing ever arrives: a read waits
    // out its timeout and returns 0. A read that would wait for ever fails
    // instead of hanging the caller.
    bool nonblocking = false;
    int result = withHandle(dev, [&](Registry &) {
        const char *text = nullptr;
        if (!alive(dev))
            text = "hid_read_timeout: unexpected poll error (device disconnected)";
        else if (milliseconds < 0 && !dev->nonblocking)
            text = "hid_read_timeout: the device sends no input reports; a blocking read would never return";
        if (text) {
            dev->readError.store(internError(text));
            dev->error.store(internError(text));
            return -1;
        }
        nonblocking = dev->nonblocking;
        dev->readError.store(success());
        return 0;
    });
    if (result == 0 && !nonblocking && milliseconds > 0)
        std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
    return result;
}

int hid_read(hid_device *dev, unsigned char *data, size_t length)
{
    return hid_read_timeout(dev, data, length, -1);
}

int hid_set_nonblocking(hid_device *dev, int nonblock)
{
    return withHandle(dev, [&](Registry &) {
        dev->nonblocking = nonblock != 0;
        return 0;
    });
}

int hid_get_manufacturer_string(hid_device *dev, wchar_t *string, size_t maxlen)
{
    return withHandle(dev, [&](Registry &) { return copyString(dev, string, maxlen, kManufacturer); });
}

int hid_get_product_string(hid_device *dev, wchar_t *string, size_t maxlen)
{
    return withHandle(dev,
                      [&](Registry &) { return copyString(dev, string, maxlen, dev->info->product_string); });
}

int hid_get_serial_number_string(hid_device *dev, wchar_t *string, size_t maxlen)
{
    return withHandle(dev,
                      [&](Registry &) { return copyString(dev, string, maxlen, dev->info->serial_number); });
}

int hid_get_indexed_string(hid_device *dev, int, wchar_t *, size_t)
{
    return withHandle(dev, [&](Registry &) {
        dev->error.store(internError("hid_get_indexed_string: not supported by hidraw"));
        return -1;
    });
}

hid_device_info *hid_get_device_info(hid_device *dev)
{
    hid_device_info *info = nullptr;
    withHandle(dev, [&](Registry &) {
        info = dev->info;
        return 0;
    });
    return info;
}

const wchar_t *hid_error(hid_device *dev)
{
    if (!dev) {
        const wchar_t *e = globalError.load();
        return e ? e : success();
    }
    Registry &r = Registry::instance();
    std::lock_guard<std::mutex> lock(r.mutex);
    if (!r.isHandle(dev)) {
        ++r.invalidUses;
        return internError("Invalid device handle");
    }
    return dev->error.load();
}

const wchar_t *hid_read_error(hid_device *dev)
{
    Registry &r = Registry::instance();
    std::lock_guard<std::mutex> lock(r.mutex);
    if (!r.isHandle(dev)) {
        ++r.invalidUses;
        return internError("Invalid device handle");
    }
    return dev->readError.load();
}

const hid_api_version *hid_version(void)
{
    static const hid_api_version version = {0, 14, 0};
    return &version;
}

const char *hid_version_str(void) { return "0.14.0"; }

} // extern "C"
#pragma GCC visibility pop
