#!/usr/bin/env python3
"""Writes the wmi-fails-* test machines under tests/fixtures/machines.

Each is the same small Windows XP SP3 machine whose WMI answers one way: a step of the
hot-fix query fails, CoInitializeSecurity answers RPC_E_TOO_LATE (which is not a failure),
or the query succeeds with no row. Its WMI rows and its Updates tree name different fixes,
so a run shows which source the fixes came from. The folders are committed; edit this
script and run it again rather than editing one of them.

    scripts/gen-wmi-fails-machines.py [--out DIR]
"""
import argparse
import json
import os
import shutil

# name -> (forced step results, WMI rows recorded?, what the folder shows)
MACHINES = {
    "wmi-fails-coInitializeEx": (
        {"coInitializeEx": "0x8007000E"}, True, "CoInitializeEx fails with E_OUTOFMEMORY."),
    "wmi-fails-coInitializeSecurity": (
        {"coInitializeSecurity": "0x80070005"}, True,
        "CoInitializeSecurity fails with E_ACCESSDENIED."),
    "wmi-fails-coInitializeSecurity-too-late": (
        {"coInitializeSecurity": "0x80010119"}, True,
        "CoInitializeSecurity answers RPC_E_TOO_LATE: security was already set in this "
        "process, which is not a failure. WMI answers its two rows; the Updates tree is not "
        "read."),
    "wmi-fails-createLocator": (
        {"createLocator": "0x80040154"}, True,
        "Creating the WBEM locator fails with REGDB_E_CLASSNOTREG."),
    "wmi-fails-connectServer": (
        {"connectServer": "0x8004100E"}, True,
        "ConnectServer fails with WBEM_E_INVALID_NAMESPACE."),
    "wmi-fails-setProxyBlanket": (
        {"setProxyBlanket": "0x8001011A"}, True,
        "CoSetProxyBlanket fails with RPC_E_NO_GOOD_SECURITY_PACKAGES."),
    "wmi-fails-execQuery": (
        {"execQuery": "0x80041010"}, True, "ExecQuery fails with WBEM_E_INVALID_CLASS."),
    "wmi-fails-no-rows": (
        {}, False, "Every step succeeds and the query returns no row."),
}

# Only in WMI: KB2121546 and KB2141007. Only in the registry: KB2079403 and KB2115168.
WMI_ROWS = [
    {"Caption": "http://support.microsoft.com/?kbid=2121546", "CSName": "QFE-XP",
     "Description": "Security Update", "FixComments": "Update", "HotFixID": "KB2121546",
     "InstallDate": None, "InstalledBy": "SYSTEM", "InstalledOn": "9/15/2010",
     "ServicePackInEffect": "SP4"},
    {"Caption": "http://support.microsoft.com/?kbid=2141007", "CSName": "QFE-XP",
     "Description": "Update", "FixComments": "Update", "HotFixID": "KB2141007",
     "InstallDate": None, "InstalledBy": "Administrator", "InstalledOn": "10/12/2010",
     "ServicePackInEffect": "SP4"},
]

SOFTWARE_REG = r"""Windows Registry Editor Version 5.00

[HKEY_LOCAL_MACHINE\SOFTWARE\Microsoft\Updates]

[HKEY_LOCAL_MACHINE\SOFTWARE\Microsoft\Updates\Windows XP]

[HKEY_LOCAL_MACHINE\SOFTWARE\Microsoft\Updates\Windows XP\SP4]

[HKEY_LOCAL_MACHINE\SOFTWARE\Microsoft\Updates\Windows XP\SP4\KB2079403]
"Description"="Security Update for Windows XP (KB2079403)"
"InstalledDate"="8/16/2010"
"InstalledBy"="SYSTEM"
"Type"="Update"

[HKEY_LOCAL_MACHINE\SOFTWARE\Microsoft\Updates\Windows XP\SP4\KB2079403\Filelist]

[HKEY_LOCAL_MACHINE\SOFTWARE\Microsoft\Updates\Windows XP\SP4\KB2079403\Filelist\0]
"Location"="C:\\WINDOWS\\system32"
"FileName"="msxml3.dll"
"Version"="8.100.1051.0"

[HKEY_LOCAL_MACHINE\SOFTWARE\Microsoft\Updates\Windows XP\SP4\KB2115168]
"Description"="Security Update for Windows XP (KB2115168)"
"InstalledDate"="8/16/2010"
"InstalledBy"="Administrator"
"Type"="Update"

[HKEY_LOCAL_MACHINE\SOFTWARE\Microsoft\Windows\CurrentVersion\Uninstall\KB2079403]
"DisplayName"="Security Update for Windows XP (KB2079403)"
"DisplayVersion"="1"
"Publisher"="Microsoft Corporation"
"InstallDate"="20100816"
"ReleaseType"="Security Update"

[HKEY_LOCAL_MACHINE\SOFTWARE\Microsoft\Windows\CurrentVersion\Uninstall\KB2115168]
"DisplayName"="Security Update for Windows XP (KB2115168)"
"DisplayVersion"="1"
"Publisher"="Microsoft Corporation"
"InstallDate"="20100816"
"ReleaseType"="Security Update"

[HKEY_LOCAL_MACHINE\SOFTWARE\Microsoft\Windows\CurrentVersion\Uninstall\ScanStation]
"DisplayName"="Contoso Scan Station"
"DisplayVersion"="2.4.1"
"Publisher"="Contoso Ltd."
"InstallDate"="20090611"

[HKEY_LOCAL_MACHINE\SOFTWARE\Microsoft\Windows NT\CurrentVersion]
"CurrentVersion"="5.1"
"CurrentBuildNumber"="2600"
"CurrentBuild"="2600"
"CurrentType"="Multiprocessor Free"
"ProductName"="Microsoft Windows XP"
"CSDVersion"="Service Pack 3"
"SystemRoot"="C:\\WINDOWS"

[HKEY_LOCAL_MACHINE\SOFTWARE\Microsoft\Windows NT\CurrentVersion\HotFix\KB2079403]
"Installed"=dword:00000001
"Fix Description"="Security Update for Windows XP (KB2079403)"

[HKEY_LOCAL_MACHINE\SOFTWARE\Microsoft\Windows NT\CurrentVersion\HotFix\KB2115168]
"Installed"=dword:00000001
"Fix Description"="Security Update for Windows XP (KB2115168)"
"""


def machine_json(steps, rows, what):
    wmi = {"classes": {"Win32_QuickFixEngineering": WMI_ROWS if rows else []}}
    if steps:
        wmi = {"steps": steps, **wmi}
    return {
        "$schema": "../../../../docs/machine.schema.json",
        "description": "QFE-XP: Windows XP SP3, 32-bit. " + what,
        "system": {
            "computerName": "QFE-XP",
            "codePage": 1252,
            "processor": {"architecture": 0, "pageSize": 4096, "count": 1},
            "isWow64Process": False,
            "version": {"major": 5, "minor": 1, "build": 2600, "platformId": 2,
                        "servicePack": "Service Pack 3", "servicePackMajor": 3,
                        "suiteMask": 256, "productType": 1},
            "windowsDirectory": "C:\\WINDOWS",
            "systemDirectory": "C:\\WINDOWS\\system32",
        },
        "wmi": wmi,
    }


def main():
    here = os.path.dirname(os.path.abspath(__file__))
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--out", default=os.path.join(here, "..", "tests", "fixtures", "machines"))
    args = parser.parse_args()
    for name, (steps, rows, what) in MACHINES.items():
        folder = os.path.join(args.out, name)
        shutil.rmtree(folder, ignore_errors=True)
        os.makedirs(os.path.join(folder, "registry"))
        with open(os.path.join(folder, "machine.json"), "w", encoding="utf-8", newline="\n") as f:
            json.dump(machine_json(steps, rows, what), f, indent=2)
            f.write("\n")
        with open(os.path.join(folder, "registry", "software.reg"), "w", encoding="utf-8",
                  newline="\n") as f:
            f.write(SOFTWARE_REG)


if __name__ == "__main__":
    main()
