#include "cuse/cuse_server.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <linux/fuse.h>

namespace tvsim {

namespace {

using Bytes = std::vector<uint8_t>;

template <typename T> void append(Bytes &bytes, const T &value) {
    const uint8_t *raw = reinterpret_cast<const uint8_t *>(&value);
    bytes.insert(bytes.end(), raw, raw + sizeof value);
}

// A reply: the header (its length, the error as a negative errno value, the request's number)
// and, on success, the body.
Bytes reply(uint64_t unique, int error, const Bytes &body = {}) {
    fuse_out_header header{};
    header.len = static_cast<uint32_t>(sizeof header + (error == 0 ? body.size() : 0));
    header.error = -error;
    header.unique = unique;
    Bytes out;
    append(out, header);
    if (error == 0)
        out.insert(out.end(), body.begin(), body.end());
    return out;
}

// A successful reply carrying a record, then any bytes that follow it.
template <typename T> Bytes record_reply(uint64_t unique, const T &record, const Bytes &more = {}) {
    Bytes body;
    append(body, record);
    body.insert(body.end(), more.begin(), more.end());
    return reply(unique, 0, body);
}

// A request's argument record: false when the request is too short to hold it.
template <typename T> bool take(const uint8_t *args, size_t length, T *record) {
    if (length < sizeof *record)
        return false;
    std::memcpy(record, args, sizeof *record);
    return true;
}

// The error of a model call that failed (errno, EIO if it set none).
int failure() {
    return errno != 0 ? errno : EIO;
}

} // namespace

CuseServer::CuseServer(Board &board, std::string device_path)
    : board_(board), path_(std::move(device_path)) {}

Device *CuseServer::device(uint64_t handle) {
    auto it = open_.find(handle);
    return it != open_.end() ? it->second.get() : nullptr;
}

std::vector<uint8_t> CuseServer::handle(const uint8_t *request, size_t length) {
    fuse_in_header in{};
    if (!take(request, length, &in))
        return {};
    const uint8_t *args = request + sizeof in;
    size_t total = std::min<size_t>(length, in.len);
    size_t args_length = total > sizeof in ? total - sizeof in : 0;
    errno = 0;
    switch (in.opcode) {
    case CUSE_INIT: {
        cuse_init_in init{};
        if (!take(args, args_length, &init) || init.major != FUSE_KERNEL_VERSION)
            return reply(in.unique, EPROTO);
        cuse_init_out out{};
        out.major = FUSE_KERNEL_VERSION;
        out.minor = FUSE_KERNEL_MINOR_VERSION;
        out.max_read = kMaxTransfer;
        out.max_write = kMaxTransfer;
        std::string info = "DEVNAME=" + path_.substr(path_.rfind('/') + 1);
        const char *text = info.c_str(); // the device's name with its terminating zero
        return record_reply(in.unique, out, Bytes(text, text + info.size() + 1));
    }
    case FUSE_OPEN: {
        fuse_open_in open{};
        if (!take(args, args_length, &open))
            return reply(in.unique, EIO);
        int err = ENOENT;
        std::unique_ptr<Device> opened =
            board_.open_device(path_, static_cast<int>(open.flags), &err);
        if (!opened)
            return reply(in.unique, err != 0 ? err : ENOENT);
        fuse_open_out out{};
        out.fh = next_handle_++;
        open_[out.fh] = std::move(opened);
        return record_reply(in.unique, out);
    }
    case FUSE_READ: {
        fuse_read_in read{};
        if (!take(args, args_length, &read))
            return reply(in.unique, EIO);
        Device *dev = device(read.fh);
        if (dev == nullptr)
            return reply(in.unique, EBADF);
        dev->set_open_flags(static_cast<int>(read.flags));
        Bytes data(std::min(read.size, kMaxTransfer));
        ssize_t got = dev->read(data.data(), data.size());
        if (got < 0)
            return reply(in.unique, failure());
        data.resize(static_cast<size_t>(got));
        return reply(in.unique, 0, data);
    }
    case FUSE_WRITE: {
        fuse_write_in write{};
        if (!take(args, args_length, &write) || args_length - sizeof write < write.size)
            return reply(in.unique, EIO);
        Device *dev = device(write.fh);
        if (dev == nullptr)
            return reply(in.unique, EBADF);
        ssize_t put = dev->write(args + sizeof write, write.size);
        if (put < 0)
            return reply(in.unique, failure());
        fuse_write_out out{};
        out.size = static_cast<uint32_t>(put);
        return record_reply(in.unique, out);
    }
    case FUSE_IOCTL: {
        fuse_ioctl_in ioctl{};
        if (!take(args, args_length, &ioctl) || args_length - sizeof ioctl < ioctl.in_size ||
            ioctl.out_size > kMaxTransfer)
            return reply(in.unique, EIO);
        Device *dev = device(ioctl.fh);
        if (dev == nullptr)
            return reply(in.unique, EBADF);
        Bytes data(std::max(ioctl.in_size, ioctl.out_size));
        std::copy_n(args + sizeof ioctl, ioctl.in_size, data.begin());
        uintptr_t arg = data.empty() ? static_cast<uintptr_t>(ioctl.arg)
                                     : reinterpret_cast<uintptr_t>(data.data());
        int result = dev->ioctl(ioctl.cmd, arg);
        if (result < 0)
            return reply(in.unique, failure());
        fuse_ioctl_out out{};
        out.result = result;
        data.resize(ioctl.out_size);
        return record_reply(in.unique, out, data);
    }
    case FUSE_FLUSH:
        return reply(in.unique, 0);
    case FUSE_RELEASE: {
        fuse_release_in release{};
        if (!take(args, args_length, &release))
            return reply(in.unique, EIO);
        if (Device *dev = device(release.fh)) {
            dev->close();
            open_.erase(release.fh);
            board_.save();
        }
        return reply(in.unique, 0);
    }
    case FUSE_INTERRUPT:
        return {};
    default:
        return reply(in.unique, ENOSYS);
    }
}

} // namespace tvsim
