#!/usr/bin/env python3
"""Writes synthetic recorded machines of a given size, for the benchmarks.

    scripts/gen-synthetic-machine.py --case CASE --entries N --format reg|hive --out DIR
    scripts/gen-synthetic-machine.py --all ROOT [--sizes 1000,10000,100000]

Cases (N entries each):
  apps        N Uninstall entries in each view, 2,000 Installer products, 1,000 HotFix keys
              (scripts/gen-software-machine.py)
  env         N system variables (the current control set's Session Manager\\Environment)
              and N user variables (HKCU\\Environment); a fifth are REG_EXPAND_SZ
  components  N optional components: sysoc.inf lines naming N/10 component INF files of
              ten components each, N/100 setup DLLs with versions in machine.json, and
              Oc Manager\\Subcomponents with a value per component

The registry goes to registry/*.reg (regedit exports) or hives/ (SOFTWARE, SYSTEM,
NTUSER.DAT); the rest is the same in both. --all writes every case, size and format into
ROOT/<case>-<N>-<format>, and keeps a folder already written by this very script with the
same arguments. The same arguments always write the same bytes.
"""
import argparse
import hashlib
import importlib.util
import json
import os
import random
import shutil
import sys

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from synthetic_registry import REG_EXPAND_SZ, dword, sz, write_hive, write_reg  # noqa: E402

CASES = ("apps", "env", "components")
FORMATS = ("reg", "hive")
HERE = os.path.dirname(os.path.abspath(__file__))


def software_generator():
    spec = importlib.util.spec_from_file_location(
        "gen_software_machine", os.path.join(HERE, "gen-software-machine.py"))
    module = importlib.util.module_from_spec(spec)
    spec.loader.exec_module(module)
    return module


def base_system(name, windows="C:\\Windows", version=(6, 1, 7601, "Service Pack 1", 1)):
    major, minor, build, pack, pack_major = version
    return {
        "computerName": name,
        "codePage": 1252,
        "processor": {"architecture": 9, "pageSize": 4096, "count": 4},
        "isWow64Process": False,
        "version": {"major": major, "minor": minor, "build": build, "platformId": 2,
                    "servicePack": pack, "servicePackMajor": pack_major, "suiteMask": 256,
                    "productType": 1},
        "windowsDirectory": windows,
        "systemDirectory": windows + "\\system32",
    }


def write_json(out, machine):
    with open(os.path.join(out, "machine.json"), "w", encoding="utf-8", newline="\n") as f:
        json.dump(machine, f, indent=2)
        f.write("\n")


def write_registry(out, form, hives):
    """hives: [(hive file name, .reg file name, root key, tree)]."""
    folder = os.path.join(out, "hives" if form == "hive" else "registry")
    os.makedirs(folder, exist_ok=True)
    for hive, export, root, tree in hives:
        if form == "hive":
            write_hive(os.path.join(folder, hive), tree)
        else:
            write_reg(os.path.join(folder, export), root, tree)


# ---- apps ----

def write_apps(out, entries, form, seed):
    software = software_generator()
    args = argparse.Namespace(apps=entries, products=2000, hotfixes=1000, seed=seed)
    tree, machine = software.generate(args)
    software.write_machine(out, tree, machine, form)


# ---- env ----

WORDS = ["alpha", "build", "cache", "data", "edge", "flag", "grid", "host", "index", "java",
         "kernel", "log", "mode", "node", "opt", "path", "queue", "root", "share", "tool"]
# The last one is never set: it stays as written.
EXPANSIONS = ["%SystemRoot%", "%ProgramFiles%", "%USERPROFILE%", "%SystemDrive%", "%NOT_SET_{}%"]


def variables(rng, count, prefix, fixed):
    values = list(fixed)
    for index in range(count - len(fixed)):
        name = "%s_%s_%06d" % (prefix, rng.choice(WORDS).upper(), index)
        parts = [rng.choice(WORDS) for _ in range(rng.randint(2, 8))]
        if rng.random() < 0.2:
            head = rng.choice(EXPANSIONS).format(index)
            values.append(sz(name, head + "\\" + "\\".join(parts), REG_EXPAND_SZ))
        else:
            values.append(sz(name, " ".join(parts)))
    return values


def write_env(out, entries, form, seed):
    rng = random.Random(seed)
    system = variables(rng, entries, "SYS", [
        sz("ComSpec", "%SystemRoot%\\system32\\cmd.exe", REG_EXPAND_SZ),
        sz("OS", "Windows_NT"),
        sz("Path", "%SystemRoot%\\system32;%SystemRoot%;%SystemRoot%\\System32\\Wbem",
           REG_EXPAND_SZ),
        sz("PATHEXT", ".COM;.EXE;.BAT;.CMD;.VBS;.VBE;.JS;.JSE;.WSF;.WSH;.MSC"),
        sz("PROCESSOR_ARCHITECTURE", "AMD64"),
        sz("TEMP", "%SystemRoot%\\TEMP", REG_EXPAND_SZ),
        sz("windir", "%SystemRoot%", REG_EXPAND_SZ),
    ])
    user = variables(rng, entries, "USR", [
        sz("TEMP", "%USERPROFILE%\\AppData\\Local\\Temp", REG_EXPAND_SZ),
        sz("TMP", "%USERPROFILE%\\AppData\\Local\\Temp", REG_EXPAND_SZ),
    ])
    system_tree = {
        "Select": [dword("Current", 1), dword("Default", 1), dword("Failed", 0),
                   dword("LastKnownGood", 1)],
        "ControlSet001\\Control\\Session Manager\\Environment": system,
    }
    write_registry(out, form, [
        ("SYSTEM", "system.reg", "HKEY_LOCAL_MACHINE\\SYSTEM", system_tree),
        ("NTUSER.DAT", "user.reg", "HKEY_CURRENT_USER", {"Environment": user}),
    ])
    machine = {"description": "Synthetic Windows 7 SP1 x64 workstation with %d system and %d "
                              "user environment variables." % (entries, entries),
               "system": base_system("SYNTH-ENV")}
    machine["system"]["environment"] = {
        "ProgramFiles": "C:\\Program Files", "SystemDrive": "C:", "SystemRoot": "C:\\Windows",
        "USERPROFILE": "C:\\Users\\synth", "USERNAME": "synth"}
    write_json(out, machine)


# ---- components ----

PER_INF = 10
PER_DLL = 100


def inf_text(rng, file_index, ids):
    lines = ["; component file %d" % file_index, "[Version]", 'Signature = "$Windows NT$"',
             "DriverVer=07/01/2001,5.1.2600.5512", "", "[Optional Components]"]
    lines += ids
    strings = []
    for position, ident in enumerate(ids):
        lines += ["", "[%s]" % ident, "OptionDesc = %%%s_DESC%%" % ident,
                  "Tip        = %%%s_TIP%%" % ident,
                  "Parent     = %s" % (ids[0] if position else "Comp%05dGroup" % (file_index % 97))]
        strings.append('%s_DESC = "%s %s"' % (ident, rng.choice(WORDS).title(), ident))
        strings.append('%s_TIP = "Adds the %s %s tools."' % (
            ident, rng.choice(WORDS), rng.choice(WORDS)))
    lines += ["", "[Strings]"] + strings
    return "\r\n".join(lines) + "\r\n"


def write_components(out, entries, form, seed):
    rng = random.Random(seed)
    windows = "C:\\WINDOWS"
    inf_folder = os.path.join(out, "files", "C", "WINDOWS", "inf")
    os.makedirs(inf_folder, exist_ok=True)
    files = (entries + PER_INF - 1) // PER_INF
    dlls = max(1, (entries + PER_DLL - 1) // PER_DLL)
    components = ["[Version]", 'Signature = "$Windows NT$"', "", "[Components]"]
    subcomponents = []
    made = 0
    for index in range(files):
        ids = ["Comp%06d" % (made + i) for i in range(min(PER_INF, entries - made))]
        made += len(ids)
        dll = "oc%04d.dll" % (index % dlls)
        hide = "hide" if rng.random() < 0.1 else ""
        components.append("Comp%05dGroup=%s,OcEntry,comp%05d.inf,%s,7" % (index, dll, index, hide))
        with open(os.path.join(inf_folder, "comp%05d.inf" % index), "w", encoding="ascii",
                  newline="") as f:
            f.write(inf_text(rng, index, ids))
        subcomponents += [dword(ident.lower(), rng.choice((0, 1, 1, 1))) for ident in ids]
    with open(os.path.join(inf_folder, "sysoc.inf"), "w", encoding="ascii", newline="") as f:
        f.write("\r\n".join(components) + "\r\n")
    versions = {}
    for index in range(dlls):
        path = windows + "\\system32\\setup\\oc%04d.dll" % index
        versions[path] = {"fileVersion": "5.1.2600.%d (xpsp.080413-2111)" % (5512 + index),
                          "fileDescription": "Optional Component Setup %d" % index}
    versions[windows + "\\system32\\ntbackup.exe"] = {
        "fileVersion": "5.1.2600.5512 (xpsp.080413-0852)", "fileDescription": "Backup Utility"}
    tree = {"Microsoft\\Windows\\CurrentVersion\\Setup\\Oc Manager\\Subcomponents": subcomponents}
    write_registry(out, form, [("SOFTWARE", "software.reg", "HKEY_LOCAL_MACHINE\\SOFTWARE", tree)])
    machine = {"description": "Synthetic Windows XP SP3 machine with %d optional components." %
                              entries,
               "system": base_system("SYNTH-OC", windows, (5, 1, 2600, "Service Pack 3", 3)),
               "setup": {"versions": versions}}
    machine["system"]["environment"] = {
        "Path": windows + "\\system32;" + windows + ";" + windows + "\\System32\\Wbem",
        "SystemRoot": windows}
    write_json(out, machine)


WRITERS = {"apps": write_apps, "env": write_env, "components": write_components}


def write(case, entries, form, out, seed):
    if os.path.exists(out):
        shutil.rmtree(out)
    os.makedirs(out)
    WRITERS[case](out, entries, form, seed)


def fingerprint(*parts):
    digest = hashlib.sha256()
    for name in ("gen-synthetic-machine.py", "gen-software-machine.py", "synthetic_registry.py"):
        with open(os.path.join(HERE, name), "rb") as f:
            digest.update(f.read())
    digest.update(repr(parts).encode())
    return digest.hexdigest()


def write_all(root, sizes, seed):
    for case in CASES:
        for entries in sizes:
            for form in FORMATS:
                out = os.path.join(root, "%s-%d-%s" % (case, entries, form))
                stamp = os.path.join(out, ".written-by")
                wanted = fingerprint(case, entries, form, seed)
                try:
                    with open(stamp) as f:
                        if f.read() == wanted:
                            continue
                except OSError:
                    pass
                print("writing %s" % out, flush=True)
                write(case, entries, form, out, seed)
                with open(stamp, "w") as f:
                    f.write(wanted)


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--case", choices=CASES)
    parser.add_argument("--entries", type=int, default=1000)
    parser.add_argument("--format", choices=FORMATS, default="reg")
    parser.add_argument("--out", help="machine folder to write (replaced)")
    parser.add_argument("--all", metavar="ROOT", help="write every case, size and format")
    parser.add_argument("--sizes", default="1000,10000,100000", help="for --all")
    parser.add_argument("--seed", type=int, default=1)
    args = parser.parse_args()
    if args.all:
        sizes = [int(size) for size in args.sizes.split(",")]
        if any(size < 1 for size in sizes):
            parser.error("--sizes must be positive")
        write_all(args.all, sizes, args.seed)
        return
    if not args.case or not args.out:
        parser.error("give --case and --out, or --all")
    if args.entries < 1:
        parser.error("--entries must be positive")
    write(args.case, args.entries, args.format, args.out, args.seed)


if __name__ == "__main__":
    main()
