// What a disk is called: its model, serial, world wide name and bus.
//
// The kernel's own word comes first where it has one, since it is the same with and without a device manager: a serial
// that is written down in one system names the disk in another. The manager's database knows more of disks behind USB
// bridges, and models in full length. Either may be missing, and then less is known.
#include "host/disk_facts_linux.h"

#include <libudev.h>

#include <cctype>
#include <memory>
#include <sstream>

namespace host
{

// ---- The device manager's database ----

struct EndUdev {
    void operator()(udev *database) const
    {
        udev_unref(database);
    }
    void operator()(udev_device *device) const
    {
        udev_device_unref(device);
    }
};

// What the database has of a device. Without one every property is empty.
struct Properties {
    explicit Properties(const std::string &deviceFolder)
        : database(udev_new()),
          device(database == nullptr ? nullptr : udev_device_new_from_syspath(database.get(), deviceFolder.c_str()))
    {
    }

    std::string operator[](const char *name) const
    {
        const char *value = device == nullptr ? nullptr : udev_device_get_property_value(device.get(), name);
        return value == nullptr ? std::string() : FieldText(value);
    }

    std::unique_ptr<udev, EndUdev> database;
    std::unique_ptr<udev_device, EndUdev> device;
};

// The first that is not empty.
static std::string FirstOf(std::initializer_list<std::string> texts)
{
    for (const std::string &text : texts) {
        if (!text.empty()) {
            return text;
        }
    }
    return {};
}

static int DigitValue(char digit)
{
    return digit >= '0' && digit <= '9'   ? digit - '0'
           : digit >= 'a' && digit <= 'f' ? digit - 'a' + 10
           : digit >= 'A' && digit <= 'F' ? digit - 'A' + 10
                                          : -1;
}

// Bytes that the database writes as \x20.
static std::string Decoded(const std::string &text)
{
    std::string bytes;
    for (size_t i = 0; i < text.size(); ++i) {
        const bool isCode = text.size() - i >= 4 && text[i] == '\\' && text[i + 1] == 'x' &&
                            DigitValue(text[i + 2]) >= 0 && DigitValue(text[i + 3]) >= 0;
        bytes += isCode ? static_cast<char>(DigitValue(text[i + 2]) * 16 + DigitValue(text[i + 3])) : text[i];
        i += isCode ? 3 : 0;
    }
    return FieldText(bytes);
}

// ---- The four ----

static std::string Field(const std::string &path)
{
    return FieldText(ReadLine(path));
}

// The makers of SCSI and USB disks have a field of their own beside that of the model.
static std::string ModelOf(const std::string &folder, const Properties &properties)
{
    const std::string model =
        FirstOf({Decoded(properties["ID_MODEL_ENC"]), Field(folder + "/device/model"), properties["ID_MODEL"],
                 Field(folder + "/device/name")}); // the last one is that of memory cards
    const std::string vendor = Field(folder + "/device/vendor");
    const bool isMaker = !vendor.empty() && vendor != "ATA" && vendor.rfind("0x", 0) != 0; // a number, of virtio
    return model.empty() || !isMaker || model.rfind(vendor, 0) == 0 ? model : vendor + " " + model;
}

// SCSI's page of the unit's serial number, as the kernel read it when the disk arrived.
static std::string SerialPage(const std::string &folder)
{
    constexpr size_t headerBytes = 4;
    std::string page;
    if (ReadStart(folder + "/device/vpd_pg80", 256, &page) || page.size() < headerBytes || page[1] != '\x80') {
        return {};
    }
    const auto byteAt = [&page](size_t i) { return static_cast<size_t>(static_cast<unsigned char>(page[i])); };
    return FieldText(page.substr(headerBytes, byteAt(2) * 256 + byteAt(3)));
}

// That of the USB device that the disk lies in.
static std::string UsbSerial(std::string folder)
{
    for (; folder.size() > 1; folder.erase(folder.find_last_of('/'))) {
        if (!ReadLine(folder + "/idVendor").empty()) {
            return Field(folder + "/serial");
        }
    }
    return {};
}

static std::string SerialOf(const std::string &folder, const Properties &properties)
{
    return FirstOf({Field(folder + "/serial"), Field(folder + "/device/serial"), SerialPage(folder),
                    properties["ID_SCSI_SERIAL"], properties["ID_SERIAL_SHORT"], UsbSerial(folder)});
}

// What the kernel calls naa is written as the device manager and Windows write it. A name that the disk's maker alone
// vouches for is none.
static std::string WwnText(const std::string &name)
{
    if (name.rfind("naa.", 0) == 0) {
        return "0x" + name.substr(4);
    }
    for (const char *prefix : {"0x", "eui.", "nvme.", "uuid."}) {
        if (name.rfind(prefix, 0) == 0) {
            return name;
        }
    }
    return {};
}

static std::string WwnOf(const std::string &folder, const Properties &properties)
{
    return FirstOf({WwnText(Field(folder + "/wwid")), WwnText(Field(folder + "/device/wwid")),
                    WwnText(properties["ID_WWN_WITH_EXTENSION"]), WwnText(properties["ID_WWN"])});
}

// Whether a part of the folder's path is the word with a number behind it.
static bool LeadsThrough(const std::string &folder, const std::string &word)
{
    std::istringstream parts(folder);
    for (std::string part; std::getline(parts, part, '/');) {
        if (part.size() > word.size() && part.rfind(word, 0) == 0 &&
            std::isdigit(static_cast<unsigned char>(part[word.size()])) != 0) {
            return true;
        }
    }
    return false;
}

// The path of the folder names the controllers that the disk hangs on. A USB or ATA disk hangs on a SCSI host as well,
// and that of a virtual machine on its virtual card.
static std::string BusOf(const std::string &folder)
{
    static constexpr struct {
        const char *part;
        const char *bus;
    } buses[] = {{"usb", "usb"}, {"fw", "firewire"}, {"ata", "ata"},       {"nvme", "nvme"}, {"nvme-subsys", "nvme"},
                 {"mmc", "mmc"}, {"host", "scsi"},   {"virtio", "virtio"}, {"vbd-", "xen"}};
    for (const auto &[part, bus] : buses) {
        if (LeadsThrough(folder, part)) {
            return bus;
        }
    }
    return {};
}

void AskNames(const std::string &diskFolder, DiskFacts *disk)
{
    const Properties properties(diskFolder);
    disk->model = ModelOf(diskFolder, properties);
    disk->serial = SerialOf(diskFolder, properties);
    disk->wwn = WwnOf(diskFolder, properties);
    disk->bus = BusOf(diskFolder);
}

} // namespace host
