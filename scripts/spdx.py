"""Lists what went into a package: our own files with their checksums, and whose headers were compiled into them,
whose libraries they load, and which compiler made them, each with its version, as an SPDX 2.3 document.

usage: spdx.py BUILD-FOLDER ARCHIVE OTHER-PACKAGE...    ARCHIVE (.tar.gz or .zip) is what the files are read from; a
list beside it has its name and .spdx.json behind. SOURCE_DATE_EPOCH is the time that the list tells.
"""
import datetime
import hashlib
import json
import os
import pathlib
import re
import subprocess
import sys
import tarfile
import uuid
import zipfile

build = pathlib.Path(sys.argv[1]).resolve()
archive, *others = map(pathlib.Path, sys.argv[2:])
source = pathlib.Path(__file__).resolve().parent.parent


def output(*command):
    return subprocess.run([str(c) for c in command], check=True, text=True, stdout=subprocess.PIPE).stdout


def contents():
    if archive.suffix == ".zip":
        with zipfile.ZipFile(archive) as packed:
            return {name: packed.read(name) for name in packed.namelist() if not name.endswith("/")}
    with tarfile.open(archive) as packed:
        return {member.name: packed.extractfile(member).read() for member in packed if member.isfile()}


def headers():
    """What the compiler read for the objects of libraries, modules and programs, but for our own."""
    found, ours = set(), False
    for line in output("ninja", "-C", build, "-t", "deps").splitlines():
        if not line.startswith(" "):
            ours = re.match(r"(?!tests/|bench/|fuzz/|googletest/)\S+\.(o|obj|res): ", line)
        elif ours:
            path = (build / line.strip()).resolve()
            if source not in path.parents:
                found.add(path)
    return found


def libraries(files):
    """The shared libraries that programs and modules name, as this system has them."""
    found = set()
    for name, data in files.items():
        if data[:4] == b"\x7fELF":
            made = build / "bin" / pathlib.Path(name).name
            needed = re.findall(r"NEEDED\s+(\S+)", output("objdump", "-p", made))
            found |= {pathlib.Path(place).resolve() for library, place in re.findall(r"(\S+) => (/\S+)", output("ldd", made))
                      if library in needed and build not in pathlib.Path(place).resolve().parents}
    return found


def compiler():
    settings = next(build.glob("CMakeFiles/*/CMakeCXXCompiler.cmake")).read_text()
    command = re.search(r'^set\(CMAKE_CXX_COMPILER "(.*)"\)', settings, re.MULTILINE)[1]
    return pathlib.Path(output("sh", "-c", f'command -v "{command}"').strip())


def static_parts():
    """What programs for Windows have of the compiler's and the system's libraries inside."""
    if archive.suffix != ".zip":
        return set()
    names = ("libstdc++.a", "libgcc.a", "libwinpthread.a", "crt2.o")
    return {pathlib.Path(output(compiler(), f"-print-file-name={name}").strip()).resolve() for name in names}


def debian_packages(paths):
    """The packages that own the files. One that the linker follows to by another way is owned under that."""
    if not paths:
        return set()
    names = [str(path) for path in paths] + [str(path).removeprefix("/usr") for path in paths]
    answer = subprocess.run(["dpkg-query", "-S", *names], text=True, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
    return {owner.split(":")[0] for line in answer.stdout.splitlines()
            for owner in line.split(": /")[0].split(", ") if not owner.startswith("diversion ")}


def checksums(data):
    return [{"algorithm": name, "checksumValue": hashlib.new(name.lower(), data).hexdigest()} for name in ("SHA1", "SHA256")]


def ref(text):
    return "SPDXRef-" + re.sub(r"[^A-Za-z0-9.]", "-", text)


UNKNOWN = {"downloadLocation": "NOASSERTION", "licenseConcluded": "NOASSERTION", "licenseDeclared": "NOASSERTION",
           "copyrightText": "NOASSERTION"}
version = re.search(r"^CMAKE_PROJECT_VERSION:\w+=(.*)$", (build / "CMakeCache.txt").read_text(), re.MULTILINE)[1]
files = contents()
packages, relationships = [], []
for made in (archive, *others):
    package = {"SPDXID": ref(made.name), "name": "qoma", "versionInfo": version, "packageFileName": made.name,
               "supplier": "Organization: QOMA developers", "checksums": checksums(made.read_bytes()),
               "filesAnalyzed": made == archive, **UNKNOWN}
    if made == archive:
        sums = sorted(hashlib.sha1(data).hexdigest() for data in files.values())
        package["packageVerificationCode"] = {"packageVerificationCodeValue": hashlib.sha1("".join(sums).encode()).hexdigest()}
        package["hasFiles"] = [ref(name) for name in sorted(files)]
    packages.append(package)
    relationships.append(("SPDXRef-DOCUMENT", "DESCRIBES", ref(made.name), ""))

PARTS = (("CONTAINS", headers(), "its headers are compiled in"),
         ("STATIC_LINK", static_parts(), "its libraries are linked in"),
         ("DYNAMIC_LINK", libraries(files), "loaded when a program starts"),
         ("BUILD_TOOL_OF", {compiler().resolve()}, ""))
known = set()
for relation, paths, comment in PARTS:
    for name in sorted(debian_packages(paths)):
        pair = (ref(name), ref(archive.name)) if relation == "BUILD_TOOL_OF" else (ref(archive.name), ref(name))
        relationships.append((pair[0], relation, pair[1], comment))
        if name in known:
            continue
        known.add(name)
        fields = "${Version}|${source:Package}|${source:Version}|${Architecture}"
        its, origin, origin_version, machine = output("dpkg-query", "-W", "-f", fields + "\n", name).splitlines()[0].split("|")
        packages.append({
            "SPDXID": ref(name), "name": name, "versionInfo": its, "supplier": "Organization: Debian",
            "filesAnalyzed": False, "sourceInfo": f"built from {origin} {origin_version}; licence: /usr/share/doc/{name}/copyright",
            "externalRefs": [{"referenceCategory": "PACKAGE-MANAGER", "referenceType": "purl",
                              "referenceLocator": f"pkg:deb/debian/{name}@{its}?arch={machine}"}], **UNKNOWN})

created = datetime.datetime.fromtimestamp(int(os.environ["SOURCE_DATE_EPOCH"]), datetime.timezone.utc)
document = {
    "spdxVersion": "SPDX-2.3", "dataLicense": "CC0-1.0", "SPDXID": "SPDXRef-DOCUMENT", "name": archive.name,
    "documentNamespace": uuid.uuid5(uuid.NAMESPACE_OID, hashlib.sha256(archive.read_bytes()).hexdigest()).urn,
    "creationInfo": {"created": created.strftime("%Y-%m-%dT%H:%M:%SZ"), "creators": ["Tool: qoma-spdx.py"]},
    "packages": packages,
    "files": [{"SPDXID": ref(name), "fileName": f"./{name}", "checksums": checksums(files[name]),
               "licenseConcluded": "NOASSERTION", "copyrightText": "NOASSERTION"} for name in sorted(files)],
    "relationships": [{"spdxElementId": a, "relationshipType": kind, "relatedSpdxElement": b, **({"comment": c} if c else {})}
                      for a, kind, b, c in relationships]}
pathlib.Path(f"{archive}.spdx.json").write_text(json.dumps(document, indent=1) + "\n")
print(f"spdx: {len(files)} files, {', '.join(sorted(known))}")
