#!/usr/bin/python3
"""Third-party notices: which outside code ends up in the shipped files, and the notices
file that names it.

  notices_tool.py assemble --out ThirdPartyNotices.txt --head head.txt --provenance FILE
                  [--binary NAME MAP DIR]... [--embedded NAME FILE]...
  notices_tool.py check --notices ThirdPartyNotices.txt --provenance FILE
                  [--binary NAME MAP DIR]... [--nsis-log NAME LOG]... [--report report.xml]

A binary is a linked executable: its linker map (ld -Map) and the folder the linker ran in,
against which the map's relative paths resolve. What it contains is every archive member
and object file the map says was linked, and every header those objects were compiled
from (the compiler's dependency files beside the objects in the build tree), which is how
header-only libraries are seen. --embedded names a file that a shipped file carries whole
(the installer's stub, its plugins). --nsis-log is makensis's -V4 log of an installer, from
which check reads the stub and the plugins the installer really took.

Each such file belongs to a Debian source package: through dpkg for files of installed
packages, or through the provenance file for the libraries cross-built from Debian's source
packages (lines "<path below the prefix>\\t<unpacked source folder>", next to the prefix).
Files of the project itself need no notice. A file of unknown origin is an error, not a
silent omission.

The notices file has one section per source package, with the package's own copyright
file, and at its end the licence texts those files refer to under /usr/share/common-licenses,
which a reader on Windows cannot look up. check fails when a source package that a shipped
file takes from has no section, or when a referred licence text is missing.
"""

import argparse
import collections
import os
import re
import subprocess
import sys
import xml.etree.ElementTree as et

COMMON_LICENSES = '/usr/share/common-licenses'
RULE = '=' * 78
SOURCE_FIELD = 'Debian source package: '

# Licences that ask for a credit line in the documentation, by source package.
CREDIT_LINES = {
    'freetype': 'Portions of this software are copyright \u00a9 {year} The FreeType Project '
                '(https://freetype.org). All rights reserved.',
}


class notices_error(Exception):
    pass


# --- what a shipped file is made of -------------------------------------------------------

def parse_link_map(path, link_dir):
    """Absolute paths of the archive members ((archive, member)) and objects the linker took."""
    taken = set()
    with open(path, encoding='utf-8', errors='replace') as f:
        text = f.read()
    # "Archive member included ..." lists every member taken, at the start of a line,
    # its reason on the same or the next line.
    head, _, rest = text.partition('\nMemory Configuration')
    for match in re.finditer(r'^(\S+\.a)\(([^)]+)\)', head, re.MULTILINE):
        taken.add((os.path.normpath(os.path.join(link_dir, match.group(1))), match.group(2)))
    for match in re.finditer(r'^LOAD (\S+\.(?:o|obj))$', rest, re.MULTILINE):
        taken.add((os.path.normpath(os.path.join(link_dir, match.group(1))), None))
    if not taken:
        raise notices_error(f'{path}: no linked files found; is it a linker map?')
    return taken


def parse_depfile(path):
    """Absolute paths of the files a Makefile-style dependency file names as prerequisites."""
    with open(path, encoding='utf-8', errors='replace') as f:
        text = f.read().replace('\\\n', ' ')
    base = os.path.dirname(path)
    while os.path.basename(base) != 'CMakeFiles' and os.path.dirname(base) != base:
        base = os.path.dirname(base)
    # The compiler ran in the folder that holds CMakeFiles; relative paths are from there.
    cwd = os.path.dirname(base)
    files = []
    for line in text.splitlines():
        _, sep, prerequisites = line.partition(': ')
        if not sep:
            continue
        for word in re.findall(r'(?:\\ |\S)+', prerequisites):
            files.append(os.path.normpath(os.path.join(cwd, word.replace('\\ ', ' '))))
    return files


class depfile_index:
    """The build tree's dependency files, by (target folder name, object file name)."""

    def __init__(self, build_root):
        self.by_object = collections.defaultdict(list)
        for folder, dirs, names in os.walk(build_root):
            dirs[:] = [d for d in dirs if d not in ('test-results', 'bin')]
            parts = folder.split(os.sep)
            if 'CMakeFiles' not in parts:
                continue
            target_dir = next((p for p in parts[parts.index('CMakeFiles') + 1:] if p.endswith('.dir')), None)
            for name in names:
                if target_dir and name.endswith('.d'):
                    self.by_object[(target_dir, name[:-2])].append(os.path.join(folder, name))

    def find(self, archive, member):
        if member is None:
            candidates = [archive + '.d'] if os.path.exists(archive + '.d') else []
            return candidates
        stem = os.path.basename(archive)
        if stem == 'objects.a':  # an executable's own objects, archived beside them
            target_dir = os.path.basename(os.path.dirname(archive))
        else:
            target_dir = re.sub(r'^lib', '', stem[:-2]) + '.dir'
        return self.by_object.get((target_dir, member), [])


def binary_inputs(link_map, link_dir, build_root, index):
    """Every file outside the build tree that went into a binary: linked files and headers."""
    inputs = set()
    for archive, member in parse_link_map(link_map, link_dir):
        inside_build = os.path.realpath(archive).startswith(os.path.realpath(build_root) + os.sep)
        if not inside_build:
            inputs.add(archive)
            continue
        if member is not None and not member.endswith(('.o', '.obj')):
            continue  # compiled resources: the project's own
        depfiles = index.find(archive, member)
        if not depfiles:
            raise notices_error(f'no dependency file for {member or archive} of {archive}: '
                                'cannot tell which headers it was compiled from')
        for depfile in depfiles:
            inputs.update(parse_depfile(depfile))
    return inputs


def nsis_log_inputs(log_path):
    """The stub and the plugins a makensis -V4 log shows the installer was made with."""
    with open(log_path, encoding='utf-8', errors='replace') as f:
        log = f.read()
    target = re.search(r'writing output \(([\w-]+)\)', log)
    compressor = re.search(r'^Using (\w+)( \(compress whole\))?', log, re.MULTILINE)
    if not target or not compressor:
        raise notices_error(f'{log_path}: not a complete makensis -V4 log')
    root = '/usr/share/nsis'
    stub = f'{compressor.group(1)}{"_solid" if compressor.group(2) else ""}-{target.group(1)}'
    inputs = {f'{root}/Stubs/{stub}'}
    for plugin in re.findall(r'^File: "([^"]+\.dll)"->"\$PLUGINSDIR\\', log, re.MULTILINE):
        inputs.add(f'{root}/Plugins/{target.group(1)}/{plugin}')
    return inputs


# --- where a file comes from --------------------------------------------------------------

class package:
    def __init__(self, source, version, homepage, copyright_path, binary_package=None):
        self.source, self.version, self.homepage = source, version, homepage
        self.copyright_path, self.binary_package = copyright_path, binary_package
        self.parts = collections.defaultdict(set)  # shipped file -> names of the files taken

    def copyright_text(self):
        with open(self.copyright_path, encoding='utf-8', errors='replace') as f:
            return f.read().rstrip() + '\n'

    def upstream_name(self):
        match = re.search(r'^Upstream-Name:\s*(.+)$', self.copyright_text(), re.MULTILINE)
        return match.group(1).strip() if match else self.source


def read_provenance(path):
    """[(resolved path, or folder ending in "/"), unpacked source folder)]."""
    prefix = os.path.dirname(os.path.abspath(path))
    entries = []
    with open(path, encoding='utf-8') as f:
        for line in f:
            if line.strip():
                below, folder = line.rstrip('\n').split('\t')
                resolved = os.path.realpath(os.path.join(prefix, below))
                entries.append((resolved + os.sep if below.endswith('/') else resolved, folder))
    return entries


def source_folder_package(folder):
    with open(os.path.join(folder, 'debian', 'changelog'), encoding='utf-8') as f:
        match = re.match(r'(\S+) \(([^)]+)\)', f.readline())
    with open(os.path.join(folder, 'debian', 'control'), encoding='utf-8') as f:
        homepage = re.search(r'^Homepage:\s*(\S+)', f.read(), re.MULTILINE)
    if not match:
        raise notices_error(f'{folder}/debian/changelog: no package and version on its first line')
    return package(match.group(1), match.group(2), homepage.group(1) if homepage else '',
                   os.path.join(folder, 'debian', 'copyright'))


def dpkg_owners(paths):
    """path -> binary package, for the paths dpkg knows (by the path or its resolved form)."""
    owners = {}
    pending = sorted(set(paths))
    for attempt in (lambda p: p, os.path.realpath):
        asked = {attempt(p): p for p in pending if p not in owners}
        if not asked:
            break
        result = subprocess.run(['dpkg-query', '-S', *asked], capture_output=True, text=True)
        for line in result.stdout.splitlines():
            names, sep, path = line.partition(': ')
            if sep and path in asked and not names.startswith('diversion by'):
                owners[asked[path]] = names.split(',')[0].strip()
    return owners


def dpkg_package(binary):
    fields = subprocess.run(['dpkg-query', '-W', '-f', '${source:Package}\t${Version}\t${Homepage}', binary],
                            capture_output=True, text=True, check=True).stdout.split('\t')
    return package(fields[0], fields[1], fields[2], f'/usr/share/doc/{binary}/copyright', binary)


def attribute(binaries, provenance_path, source_root, build_root):
    """{source package: package} for the outside files of {shipped file: files}."""
    provenance = read_provenance(provenance_path)
    own_roots = [os.path.realpath(r) + os.sep for r in (source_root, build_root)]
    by_source, by_folder, unowned = {}, {}, []
    dpkg_paths = collections.defaultdict(set)
    for shipped, files in binaries.items():
        for path in files:
            real = os.path.realpath(path)
            folder = next((f for p, f in provenance if real == p or (p.endswith(os.sep) and real.startswith(p))),
                          None)
            if folder is not None:
                if folder not in by_folder:
                    by_folder[folder] = source_folder_package(folder)
                pkg = by_source.setdefault(by_folder[folder].source, by_folder[folder])
                pkg.parts[shipped].add(part_name(path))
            elif real.startswith('/usr/'):
                dpkg_paths[path].add(shipped)
            elif any(real.startswith(root) for root in own_roots):
                continue
            else:
                unowned.append(path)
    owners = dpkg_owners(dpkg_paths)
    unowned += [p for p in dpkg_paths if p not in owners]
    if unowned:
        raise notices_error('files of unknown origin in shipped files:\n  ' + '\n  '.join(sorted(unowned)[:20]))
    binary_packages = {}
    for path, shipped_files in dpkg_paths.items():
        binary = owners[path]
        if binary not in binary_packages:
            binary_packages[binary] = dpkg_package(binary)
        pkg = by_source.setdefault(binary_packages[binary].source, binary_packages[binary])
        for shipped in shipped_files:
            pkg.parts[shipped].add(part_name(path))
    return by_source


def part_name(path):
    if path.endswith(('.a', '.o', '.obj', '.dll')) or '/Stubs/' in path:
        return os.path.basename(path)
    return 'headers'


# --- the notices file ---------------------------------------------------------------------

def referred_licences(text):
    return sorted({os.path.realpath(os.path.join(COMMON_LICENSES, name))
                   for name in re.findall(re.escape(COMMON_LICENSES) + r'/([A-Za-z0-9][A-Za-z0-9.+-]*[A-Za-z0-9])',
                                          text)})


def credit_line(pkg, text):
    template = CREDIT_LINES.get(pkg.source)
    if not template:
        return None
    years = re.findall(r'\b(?:19|20)\d\d\b', re.search(r'^Copyright:.*$', text, re.MULTILINE).group(0))
    return template.format(year=years[-1])


def assemble(packages, head_path):
    with open(head_path, encoding='utf-8') as f:
        out = [f.read().rstrip() + '\n']
    licences = set()
    for pkg in sorted(packages.values(), key=lambda p: p.upstream_name().lower()):
        text = pkg.copyright_text()
        licences.update(referred_licences(text))
        out += ['', RULE, f'{pkg.upstream_name()} {pkg.version}', RULE,
                f'{SOURCE_FIELD}{pkg.source}', f'Version: {pkg.version}', f'Home page: {pkg.homepage}']
        for shipped in sorted(pkg.parts):
            out.append(f'Parts in {shipped}: {", ".join(sorted(pkg.parts[shipped]))}')
        credit = credit_line(pkg, text)
        if credit:
            out += ['', credit]
        out += ['', text.rstrip()]
    for licence in sorted(licences):
        with open(licence, encoding='utf-8', errors='replace') as f:
            body = f.read().strip('\n').rstrip()
        out += ['', RULE, f'{COMMON_LICENSES}/{os.path.basename(licence)}', RULE, '', body]
    return '\n'.join(out) + '\n'


def noticed_sources(notices_text):
    return set(re.findall('^' + re.escape(SOURCE_FIELD) + r'(\S+)$', notices_text, re.MULTILINE))


def missing_licences(notices_text):
    present = set(re.findall(r'^' + re.escape(RULE) + '\n' + re.escape(COMMON_LICENSES) + r'/(\S+)\n' + re.escape(RULE),
                             notices_text, re.MULTILINE))
    return [name for name in (os.path.basename(p) for p in referred_licences(notices_text)) if name not in present]


# --- command line -------------------------------------------------------------------------

def shipped_inputs(args):
    index = depfile_index(args.build_root) if args.binary else None
    inputs = {}
    for name, link_map, link_dir in args.binary or []:
        inputs.setdefault(name, set()).update(binary_inputs(link_map, link_dir, args.build_root, index))
    for name, path in getattr(args, 'embedded', None) or []:
        inputs.setdefault(name, set()).add(path)
    for name, log in getattr(args, 'nsis_log', None) or []:
        inputs.setdefault(name, set()).update(nsis_log_inputs(log))
    return inputs


def write_report(path, cases):
    suite = et.Element('testsuites', tests=str(len(cases)), failures=str(sum(1 for _, m in cases if m)), errors='0')
    group = et.SubElement(suite, 'testsuite', name='third_party_notices', tests=str(len(cases)))
    for name, message in cases:
        case = et.SubElement(group, 'testcase', name=name, classname='third_party_notices')
        if message:
            et.SubElement(case, 'failure', message=message.splitlines()[0]).text = message
    os.makedirs(os.path.dirname(os.path.abspath(path)), exist_ok=True)
    et.ElementTree(suite).write(path, encoding='utf-8', xml_declaration=True)


def check(args):
    with open(args.notices, encoding='utf-8-sig') as f:
        notices_text = f.read()
    present = noticed_sources(notices_text)
    cases = []
    for shipped, files in sorted(shipped_inputs(args).items()):
        packages = attribute({shipped: files}, args.provenance, args.source_root, args.build_root)
        lacking = sorted(set(packages) - present)
        message = '\n'.join(f'{shipped} takes {", ".join(sorted(packages[s].parts[shipped]))} from the Debian '
                            f'source package {s}, whose notice is missing from {args.notices}' for s in lacking)
        cases.append((shipped, message))
    licences = missing_licences(notices_text)
    cases.append(('referred licence texts',
                  ''.join(f'{COMMON_LICENSES}/{name} is referred to but its text is missing from {args.notices}\n'
                          for name in licences)))
    for _, message in cases:
        if message:
            print(message, file=sys.stderr)
    if args.report:
        write_report(args.report, cases)
    return 1 if any(message for _, message in cases) else 0


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    commands = parser.add_subparsers(dest='command', required=True)
    for name in ('assemble', 'check'):
        sub = commands.add_parser(name)
        sub.add_argument('--provenance', required=True)
        sub.add_argument('--source-root', required=True, help="the project's sources")
        sub.add_argument('--build-root', required=True)
        sub.add_argument('--binary', nargs=3, action='append', metavar=('NAME', 'MAP', 'DIR'))
        sub.add_argument('--embedded', nargs=2, action='append', metavar=('NAME', 'FILE'))
        if name == 'assemble':
            sub.add_argument('--head', required=True)
            sub.add_argument('--out', required=True)
        else:
            sub.add_argument('--notices', required=True)
            sub.add_argument('--nsis-log', nargs=2, action='append', metavar=('NAME', 'LOG'))
            sub.add_argument('--report')
    args = parser.parse_args()
    try:
        if args.command == 'check':
            return check(args)
        packages = attribute(shipped_inputs(args), args.provenance, args.source_root, args.build_root)
        text = assemble(packages, args.head)
        # Notepad and its kin read a UTF-8 file with a byte-order mark and CR LF line ends
        # right on every Windows version.
        with open(args.out + '.tmp', 'w', encoding='utf-8-sig', newline='\r\n') as f:
            f.write(text)
        os.replace(args.out + '.tmp', args.out)
        return 0
    except (notices_error, OSError, subprocess.CalledProcessError) as error:
        print(f'notices_tool: error: {error}', file=sys.stderr)
        return 1


if __name__ == '__main__':
    sys.exit(main())
