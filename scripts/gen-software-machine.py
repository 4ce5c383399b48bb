#!/usr/bin/env python3
"""Writes a synthetic recorded machine with a large installed-software picture.

    scripts/gen-software-machine.py --out DIR [--apps N] [--products P] [--hotfixes H]
                                    [--seed S] [--format reg|hive]

DIR gets machine.json (a Windows 7 SP1 x64 workstation whose Win32_QuickFixEngineering
answers a few rows) and the SOFTWARE registry, as registry/software.reg (a UTF-16LE export
as regedit writes it) or as the hive file hives/SOFTWARE, with N Uninstall entries in each
view (64-bit and Wow6432Node), P Installer\\Products entries and H HotFix keys. The names
are chosen to load the comparisons an inventory makes: almost all DisplayNames are
distinct, some repeat across the views and in Installer\\Products, some name a HotFix key
("KB123456" and "KB 123456") and some say "Hotfix". The same arguments always write the
same bytes, and both formats hold the same keys and values.
"""
import argparse
import json
import os
import random
import uuid

from synthetic_registry import dword, sz, write_hive, write_reg

VENDORS = [
    "Adventure Works", "Alpine Ski House", "Blue Yonder", "Coho Vineyard", "Contoso",
    "Fabrikam", "Fourth Coffee", "Graphic Design Institute", "Humongous Insurance", "Litware",
    "Lucerne Publishing", "Margie's Travel", "Northwind", "Pellucid Software", "Proseware",
    "Southridge Video", "Tailspin Toys", "Tamarack", "Trey Research", "Vireo Labs",
    "Wide World Importers", "Wingtip Toys", "Woodgrove", "Lamna Healthcare", "Relecloud",
]
PRODUCTS = [
    "Audio Driver", "Backup Agent", "Barcode Fonts", "Chart Viewer", "Client Tools",
    "Data Bridge", "Desktop Search", "Device Manager", "Document Scanner", "Ethernet Driver",
    "Font Pack", "Image Viewer", "Label Designer", "Language Pack", "Mail Connector",
    "Media Codecs", "Network Monitor", "Office Connector", "PDF Printer", "Print Tools",
    "Remote Assist", "Runtime Environment", "Shared Components", "Smart Card Middleware",
    "Sync Client", "Time Tracker", "Update Service", "USB Serial Driver", "VPN Client",
    "Web Plug-in",
]
ARCH = ["", "", "", " (x64)", " (x86)", " 64-bit"]


def packed_guid(guid):
    """The Windows Installer's compressed form of a product code."""
    parts = str(guid).upper().split("-")
    out = parts[0][::-1] + parts[1][::-1] + parts[2][::-1]
    for part in parts[3:]:
        out += "".join(part[i + 1] + part[i] for i in range(0, len(part), 2))
    return out


def packed_version(version):
    """major<<24 | minor<<16 | build, as Windows Installer keeps a product version."""
    major, minor, build = version
    return (major << 24) | (minor << 16) | (build & 0xFFFF)


class Generator:
    def __init__(self, seed):
        self.rng = random.Random(seed)
        self.serial = 0
        self.used_kbs = set()

    def guid(self):
        return uuid.UUID(int=self.rng.getrandbits(128), version=4)

    def kb(self):
        while True:
            number = "%d" % self.rng.randint(900000, 2999999)
            if number not in self.used_kbs:
                self.used_kbs.add(number)
                return number

    def product(self):
        """(DisplayName, publisher, (major, minor, build)): the build is a serial number, which
        keeps every name distinct, as real version numbers mostly do."""
        self.serial += 1
        vendor = self.rng.choice(VENDORS)
        version = (self.rng.randint(1, 12), self.rng.randint(0, 9), self.serial)
        name = "%s %s %d.%d.%d%s" % (vendor, self.rng.choice(PRODUCTS), *version,
                                     self.rng.choice(ARCH))
        return name, vendor, version

    def version(self):
        return self.rng.randint(1, 15), self.rng.randint(0, 20), self.rng.randint(0, 9999)

    def install_date(self):
        year, month, day = self.rng.randint(2009, 2012), self.rng.randint(1, 12), self.rng.randint(1, 28)
        roll = self.rng.random()
        if roll < 0.05:
            return None
        if roll < 0.10:
            return "%d/%d/%d" % (month, day, year)
        return "%04d%02d%02d" % (year, month, day)


def uninstall_entries(gen, count, hotfixes, earlier_names):
    """(key name, [values], DisplayName or None) for one view, in regedit's order."""
    entries = {}
    for index in range(count):
        roll = gen.rng.random()
        publisher, version = None, gen.version()
        if roll < 0.01:
            name = None
        elif roll < 0.06 and not hotfixes:
            name, publisher, version = gen.product()
        elif roll < 0.04:
            name = "Security Update for Windows 7 for x64-based Systems (KB%s)" % hotfixes[
                index % len(hotfixes)]
            publisher = "Microsoft Corporation"
        elif roll < 0.06:
            name = "Update for Windows 7 (KB %s)" % hotfixes[(index * 7) % len(hotfixes)]
            publisher = "Microsoft Corporation"
        elif roll < 0.08:
            product, publisher, _ = gen.product()
            name = "Hotfix for %s (KB%s)" % (product, gen.kb())
        elif roll < 0.13 and earlier_names:
            name = gen.rng.choice(earlier_names)
        else:
            name, publisher, version = gen.product()
        msi = gen.rng.random() < 0.6
        key = "{%s}" % str(gen.guid()).upper()
        if not msi and name and name not in entries:
            key = name
        values = []
        if name is not None:
            values.append(sz("DisplayName", name))
        if gen.rng.random() < 0.95:
            values.append(sz("DisplayVersion", "%d.%d.%d.0" % version))
        if publisher:
            values.append(sz("Publisher", publisher))
        date = gen.install_date()
        if date:
            values.append(sz("InstallDate", date))
        if msi:
            values.append(dword("Version", packed_version(version)))
            values.append(dword("WindowsInstaller", 1))
        values.append(dword("VersionMajor", version[0]))
        values.append(dword("VersionMinor", version[1]))
        if name is None or gen.rng.random() < 0.05:
            values.append(dword("SystemComponent", 1))
        entries[key] = (values, name)
    return [(key, *entries[key]) for key in sorted(entries, key=str.upper)]


def generate(args):
    """(tree, machine.json): the SOFTWARE hive's keys (synthetic_registry's form) and the
    machine's other facts."""
    gen = Generator(args.seed)
    hotfixes = [gen.kb() for _ in range(args.hotfixes)]
    tree = {}

    wide = uninstall_entries(gen, args.apps, hotfixes, [])
    wide_names = [name for _, _, name in wide if name]
    narrow = uninstall_entries(gen, args.apps, hotfixes, wide_names)
    names = wide_names + [name for _, _, name in narrow if name]

    for _ in range(args.products):
        if names and gen.rng.random() < 0.3:
            name, version = gen.rng.choice(names), gen.version()
        else:
            name, _, version = gen.product()
        tree["Classes\\Installer\\Products\\" + packed_guid(gen.guid())] = [
            sz("ProductName", name), dword("Version", packed_version(version)),
            dword("Language", 0x409), dword("AdvertiseFlags", 0x184)]
    for name, values, _ in wide:
        tree["Microsoft\\Windows\\CurrentVersion\\Uninstall\\" + name] = values
    tree["Microsoft\\Windows NT\\CurrentVersion"] = [
        sz("CurrentVersion", "6.1"), sz("CurrentBuildNumber", "7601"),
        sz("CSDVersion", "Service Pack 1"), sz("ProductName", "Windows 7 Professional"),
        sz("EditionID", "Professional")]
    for number in hotfixes:
        tree["Microsoft\\Windows NT\\CurrentVersion\\HotFix\\KB" + number] = [
            dword("Installed", 1), sz("Fix Description", "Update for Windows 7 (KB%s)" % number)]
    for name, values, _ in narrow:
        tree["Wow6432Node\\Microsoft\\Windows\\CurrentVersion\\Uninstall\\" + name] = values
    return tree, machine_json(hotfixes[:5])


def write_machine(out, tree, machine, form, hive="SOFTWARE"):
    """machine.json and the registry `tree` of HKLM\\<hive>, as registry/<hive>.reg or
    hives/<hive>."""
    if form == "hive":
        os.makedirs(os.path.join(out, "hives"), exist_ok=True)
        write_hive(os.path.join(out, "hives", hive), tree)
    else:
        os.makedirs(os.path.join(out, "registry"), exist_ok=True)
        write_reg(os.path.join(out, "registry", hive.lower() + ".reg"),
                  "HKEY_LOCAL_MACHINE\\" + hive, tree)
    with open(os.path.join(out, "machine.json"), "w", encoding="utf-8", newline="\n") as f:
        json.dump(machine, f, indent=2)
        f.write("\n")


def machine_json(fixes):
    rows = [{"HotFixID": "KB" + number, "Description": "Security Update",
             "InstalledBy": "NT AUTHORITY\\SYSTEM", "InstalledOn": "3/%d/2011" % (day + 1),
             "InstallDate": None} for day, number in enumerate(fixes)]
    return {
        "description": "Synthetic Windows 7 SP1 x64 workstation with a large software list.",
        "system": {
            "computerName": "SYNTH-SW",
            "codePage": 1252,
            "processor": {"architecture": 9, "pageSize": 4096, "count": 4},
            "isWow64Process": False,
            "version": {"major": 6, "minor": 1, "build": 7601, "platformId": 2,
                        "servicePack": "Service Pack 1", "servicePackMajor": 1,
                        "suiteMask": 256, "productType": 1},
            "productInfo": 48,
            "windowsDirectory": "C:\\Windows",
            "systemDirectory": "C:\\Windows\\system32",
        },
        "wmi": {"classes": {"Win32_QuickFixEngineering": rows}},
    }


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--out", required=True, help="machine folder to write")
    parser.add_argument("--apps", type=int, default=1000, help="Uninstall entries per view")
    parser.add_argument("--products", type=int, default=2000, help="Installer\\Products entries")
    parser.add_argument("--hotfixes", type=int, default=1000, help="HotFix keys")
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--format", choices=["reg", "hive"], default="reg",
                        help="registry as a regedit export or as a hive file")
    args = parser.parse_args()
    for name in ("apps", "products", "hotfixes"):
        if getattr(args, name) < 0:
            parser.error("--%s must not be negative" % name)
    write_machine(args.out, *generate(args), args.format)


if __name__ == "__main__":
    main()
