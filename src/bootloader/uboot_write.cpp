#include "bootloader/uboot_write.h"
#include "common/report.h"

#include "common/holders.h"
#include "run/main.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <mtd/mtd-user.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// End of the boot loader's own region: a region from 0 must end by it, any other must start
// at or after it.
constexpr uint32_t kBootRegionEnd = 0xF0000;
constexpr unsigned kMaxRetries = 2;
constexpr unsigned kRetryWaitSeconds = 3;

bool placement_allowed(uint32_t offset, uint32_t size) {
    return offset == 0 ? size <= kBootRegionEnd : offset >= kBootRegionEnd;
}

// The two open files, the two erase-block buffers and the region of one call.
struct Transfer {
    int mtd;
    int image;
    unsigned char *flash_data;
    unsigned char *file_data;
    uint32_t block; // erase block size: the largest chunk read or written
    uint32_t offset;
    uint32_t size;
    int64_t image_length;
};

// Positions the image at its start and the device at the region's start.
bool rewind_both(const Transfer &t) {
    if (lseek(t.image, 0, SEEK_SET) < 0) {
        report_error("lseek(infile,)");
        return false;
    }
    if (lseek(t.mtd, t.offset, SEEK_SET) < 0) {
        report_error("lseek(fd_mtd,)");
        return false;
    }
    return true;
}

size_t chunk_of(const Transfer &t, int64_t remaining) {
    return remaining < t.block ? static_cast<size_t>(remaining) : t.block;
}

enum class Comparison { Equal, Differs, Failed };

// Compares the image, chunk by chunk, with the region. The end of the image file counts as
// equal; a device that returns less than the image holds is a difference.
Comparison compare_region(const Transfer &t) {
    if (!rewind_both(t))
        return Comparison::Failed;
    for (int64_t remaining = t.image_length; remaining > 0;) {
        size_t chunk = chunk_of(t, remaining);
        ssize_t on_flash = read(t.mtd, t.flash_data, chunk);
        if (on_flash < 0) {
            report_error("read(fd_mtd,)");
            return Comparison::Failed;
        }
        ssize_t in_file = read(t.image, t.file_data, chunk);
        if (in_file < 0) {
            report_error("read(infile,)");
            return Comparison::Failed;
        }
        if (in_file == 0)
            return Comparison::Equal;
        if (on_flash < in_file ||
            memcmp(t.flash_data, t.file_data, static_cast<size_t>(in_file)) != 0)
            return Comparison::Differs;
        remaining -= in_file;
    }
    return Comparison::Equal;
}

// Writes all count bytes: a short write is followed by the rest.
bool write_whole(int fd, const unsigned char *data, size_t count) {
    while (count > 0) {
        ssize_t written = write(fd, data, count);
        if (written <= 0) {
            if (written == 0)
                errno = ENOSPC;
            report_error("write(fd_mtd,)");
            return false;
        }
        data += written;
        count -= static_cast<size_t>(written);
    }
    return true;
}

// Copies the image into the erased region with the progress display.
bool write_region(const Transfer &t) {
    if (!rewind_both(t))
        return false;
    uint32_t remaining = t.size;
    while (remaining > 0) {
        ssize_t got = read(t.image, t.file_data, chunk_of(t, remaining));
        if (got < 0) {
            report_error("read(infile,)");
            return false;
        }
        if (got == 0)
            break;
        if (!write_whole(t.mtd, t.file_data, static_cast<size_t>(got)))
            return false;
        remaining -= static_cast<uint32_t>(got);
        show_progress(static_cast<uint32_t>(t.image_length), t.size - remaining);
    }
    return true;
}

// Erase, write and verify, up to 1 + kMaxRetries times; erase and write errors end it at once.
int update_region(const Transfer &t) {
    for (unsigned retries = 0;; ++retries) {
        erase_info_user erase{t.offset, t.size};
        if (ioctl(t.mtd, MEMERASE, &erase) != 0) {
            report_error("erase");
            return UBOOT_WRITE_FAILED;
        }
        if (!write_region(t))
            return UBOOT_WRITE_FAILED;
        if (compare_region(t) == Comparison::Equal)
            return UBOOT_WRITE_OK;
        if (retries >= kMaxRetries)
            return UBOOT_WRITE_FAILED;
        printf(" Need to retry [%u]...", retries + 1);
        fflush(stdout);
        sleep(kRetryWaitSeconds);
    }
}

int64_t image_length_of(const char *image_path, uint32_t size) {
    struct stat st;
    return stat(image_path, &st) == 0 ? static_cast<int64_t>(st.st_size) : size;
}

} // namespace

int uboot_write(const char *image_path, uint32_t offset, uint32_t size, const char *mtd_path) {
    if (!placement_allowed(offset, size)) {
        printf("Error: Illegal bootloader address.");
        printf(" file=%s, offset=0x%lx,size=%d(0x%x)\n", image_path ? image_path : "(null)",
               static_cast<unsigned long>(offset), static_cast<int>(size), size);
        return UBOOT_WRITE_FAILED;
    }
    UniqueFd mtd(open(mtd_path, O_RDWR));
    if (!mtd.valid()) {
        report_error(mtd_path);
        return UBOOT_WRITE_FAILED;
    }
    if (image_path == nullptr) {
        puts("unknown input file");
        return UBOOT_WRITE_FAILED;
    }
    UniqueFd image(open(image_path, O_RDONLY));
    if (!image.valid()) {
        report_error(image_path);
        return UBOOT_WRITE_FAILED;
    }
    mtd_info_user info{};
    if (ioctl(mtd.get(), MEMGETINFO, &info) != 0) {
        report_error("MEMGETINFO");
        return UBOOT_WRITE_FAILED;
    }
    if (info.erasesize == 0) {
        errno = EINVAL; // without an erase block size nothing can be read in chunks
        report_error("MEMGETINFO");
        return UBOOT_WRITE_FAILED;
    }
    HeapBuffer flash_data(info.erasesize);
    HeapBuffer file_data(info.erasesize);
    if (!flash_data || !file_data) {
        report_error("allocate the buffer");
        return UBOOT_WRITE_FAILED;
    }
    int64_t image_length = image_length_of(image_path, size);
    if (image_length > size) {
        // Only the region is erased and written: a longer image could never verify and would
        // leave a cut-off boot loader behind.
        printf("Error: image file is larger than the region (%lld > %u bytes).\n",
               static_cast<long long>(image_length), size);
        return UBOOT_WRITE_FAILED;
    }
    Transfer t{mtd.get(), image.get(), flash_data.get(), file_data.get(), info.erasesize,
               offset,    size,        image_length};
    switch (compare_region(t)) {
    case Comparison::Failed:
        return UBOOT_WRITE_FAILED;
    case Comparison::Equal:
        printf("No need to update.  Skipping... ");
        return UBOOT_WRITE_OK;
    case Comparison::Differs:
        break;
    }
    printf("Need to update... ");
    return update_region(t);
}
