"""The archivers of wrap_test_file, one row each, and how to take files out again."""

import os
import random
import shutil
import struct
import subprocess
import tempfile
import zipfile
import zlib

FILTER, ARCHIVE = "filter", "archive"


class Tool:
    """command: with {in} (a file name in the working folder; archives: all files) and {out}; or a function of the
    working folder and the name that returns the bytes, or None.
    behind: the kind shows by its bytes, also behind other data; self-extracting files are made so. cut: a part of the
    file does not hold the whole test file, or shows that an end is missing. padded: bytes behind the end do not
    change the content. streams: several files, one behind the other, are one file."""

    def __init__(self, name, kind, ending, command, behind=False, cut=True, padded=True, weight=10, streams=False,
                 needs=None):
        self.name, self.kind, self.ending, self.command = name, kind, ending, command
        self.behind, self.cut, self.padded, self.weight, self.streams = behind, cut, padded, weight, streams
        self.programs = needs.split() if needs else [] if callable(command) else [command.strip("(").split()[0]]

    def missing(self):
        return [program for program in self.programs if not shutil.which(program)]


def run(command, folder, seconds=60):
    """True when the command ends with 0 in time."""
    try:
        return subprocess.run(["bash", "-c", "set -o pipefail; " + command], cwd=folder, stdin=subprocess.DEVNULL,
                              stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, timeout=seconds).returncode == 0
    except subprocess.TimeoutExpired:
        return False


def read(path):
    with open(path, "rb") as file:
        return file.read()


def write(path, content):
    with open(path, "wb") as file:
        file.write(content)


# --- Kinds that need more than one command -------------------------------------------------------------------------

def made_by(command, folder, ending="out"):
    """The file {out} of a command in the folder; None when the command fails."""
    with tempfile.TemporaryDirectory() as work:
        out = f"{work}/out.{ending}"
        return read(out) if run(command.replace("{out}", out).replace("{work}", work), folder) else None


def make_deb(folder, _name):
    os.makedirs(f"{folder}/DEBIAN")
    write(f"{folder}/DEBIAN/control", b"Package: wrapped\nVersion: 1\nArchitecture: all\n"
          b"Maintainer: nobody <nobody@localhost>\nDescription: a test file\n")
    return made_by(f"dpkg-deb -Z{random.choice(['gzip', 'xz', 'zstd', 'none'])} -b . {{out}}", folder, "deb")


def make_rpm(folder, _name):
    packing = random.choice(["w9.gzdio", "w9.bzdio", "w7.xzdio", "w7.lzdio", "w3.zstdio", "w.ufdio"])
    with tempfile.TemporaryDirectory() as top:
        write(f"{top}/wrapped.spec", (
            f"%define _binary_payload {packing}\n%define __os_install_post %{{nil}}\nName: wrapped\nVersion: 1\n"
            "Release: 1\nSummary: a test file\nLicense: none\nBuildArch: noarch\n%description\na test file\n"
            f"%install\nmkdir -p %{{buildroot}}/opt/wrapped\ncp {folder}/* %{{buildroot}}/opt/wrapped/\n"
            "%files\n/opt/wrapped\n").encode())
        build = f"cd {top} && rpmbuild -bb --define '_topdir {top}' wrapped.spec"
        return made_by(build + " && cp RPMS/noarch/*.rpm {out}", folder, "rpm")


def make_disk_with_table(folder, _name):
    """A disk with a partition table and one FAT partition."""
    partition = made_by("mformat -C -f 1440 -i {out} :: && mcopy -i {out} * ::", folder)
    if partition is None:
        return None
    entry = struct.pack("<B3sB3sII", 0x80, b"\1\1\0", 1, b"\1\1\0", 63, len(partition) // 512)
    return bytes(446) + entry + bytes(48) + b"\x55\xAA" + bytes(62 * 512) + partition


def make_fat_without_text(folder, _name):
    """The text "FAT12" in a FAT is informational."""
    image = made_by("mformat -C -f 1440 -i {out} :: && mcopy -i {out} * ::", folder)
    return image and image[:54] + bytes(8) + image[62:]


def make_ntfs(folder, _name):
    copies = " && ".join(f"ntfscp -f {{out}} {name} {name}" for name in sorted(os.listdir(folder)))
    return made_by("truncate -s 2M {out} && mkntfs -F -Q -q {out} && " + copies, folder)


def make_msi(folder, name):
    return made_by(f"msibuild {{out}} -s wrapped nobody && msibuild {{out}} -a Binary.wrapped {name}", folder, "msi")


def make_zip_with_link_mode(folder, name):
    """Some programs write an ordinary file for a symbolic link."""
    with tempfile.NamedTemporaryFile() as out:
        with zipfile.ZipFile(out, "w", random.choice([zipfile.ZIP_LZMA, zipfile.ZIP_DEFLATED])) as archive:
            entry = zipfile.ZipInfo(name)
            entry.create_system, entry.external_attr = 3, 0xA1ED0000
            entry.compress_type = archive.compression
            archive.writestr(entry, read(f"{folder}/{name}"))
        return read(out.name)


def make_zip64(folder, name):
    with tempfile.NamedTemporaryFile() as out:
        with zipfile.ZipFile(out, "w", zipfile.ZIP_DEFLATED) as archive:
            with archive.open(name, "w", force_zip64=True) as member:
                member.write(read(f"{folder}/{name}"))
        return read(out.name)


def tar_header(name, size, kind=b"0", magic=b"ustar\x0000"):
    """size: a number, or the twelve bytes of the field."""
    field = size if isinstance(size, bytes) else b"%011o\0" % size
    header = (name.encode()[:99].ljust(100, b"\0") + b"0000644\0" + b"0000000\0" * 2 + field + b"00000000000\0"
              + b" " * 8 + kind + bytes(100) + magic).ljust(512, b"\0")
    return header[:148] + b"%06o\0 " % sum(header) + header[156:]


def blocks(content):
    return content + bytes(-len(content) % 512)


def make_tar_of_pax_size(folder, name):
    """The header before the member gives its size; the member's own field is wrong."""
    content = read(f"{folder}/{name}")
    record = b" size=%d\n" % len(content)
    length = len(record) + 1
    while len(b"%d" % length) + len(record) != length:
        length += 1
    record = b"%d" % length + record
    return (tar_header("PaxHeaders/x", len(record), b"x") + blocks(record)
            + tar_header(name, random.choice([0, 1, len(content)])) + blocks(content) + bytes(1024))


def make_tar_of_binary_size(folder, name):
    content = read(f"{folder}/{name}")
    return tar_header(name, b"\x80" + len(content).to_bytes(11, "big")) + blocks(content) + bytes(1024)


def make_tar_of_odd_type(folder, name):
    """A type that no program knows: tar takes the member for a file."""
    content = read(f"{folder}/{name}")
    kind = random.choice([b"\0", b"7", b"9", b"A", b"B", b"Z", b"a", b"z", b" ", b"\xff"])
    return tar_header(name, len(content), kind) + blocks(content) + bytes(1024)


def make_tar_of_old_checksum(folder, name):
    """tar skips spaces and a NUL in front of the digits."""
    content = read(f"{folder}/{name}")
    header = tar_header(name, len(content), magic=random.choice([b"ustar\x0000", b"ustar  \0", b""]))
    front = random.choice([b"\0", b" ", b"\t"])
    return header[:148] + front + header[148:154] + b"\0" + header[156:] + blocks(content) + bytes(1024)


def gzip_member(content, flags=0, extra=b"", magic=b"\x1f\x8b"):
    packer = zlib.compressobj(9, zlib.DEFLATED, -15)
    packed = packer.compress(content) + packer.flush()
    return (magic + b"\x08" + bytes([flags]) + bytes(4) + b"\0\3" + extra + packed
            + struct.pack("<II", zlib.crc32(content), len(content) & 0xFFFFFFFF))


def make_gzip_with_fields(folder, name):
    extra = random.randbytes(random.randrange(0, 200))
    return gzip_member(read(f"{folder}/{name}"), 4 | 8 | 16, struct.pack("<H", len(extra)) + extra + b"name\0comment\0")


def make_gzip_of_old_magic(folder, name):
    return gzip_member(read(f"{folder}/{name}"), magic=b"\x1f\x9e")


def make_xz_with_filter(folder, name):
    chain = random.choice(["--delta=dist=4 --lzma2", "--x86 --lzma2", "--arm --lzma2", "--arm64 --lzma2",
                           "--powerpc --lzma2", "--sparc --lzma2", "--lzma2=preset=9e,lc=0,lp=4,pb=0"])
    check = random.choice(["none", "crc32", "crc64", "sha256"])
    return made_by(f"xz {chain} --check={check} -c {name} > {{out}}", folder)


# --- The rows ------------------------------------------------------------------------------------------------------

def stream_tools():
    return [
        Tool("gzip", FILTER, "gz", "gzip -c {in} > {out}", behind=True, streams=True, weight=20),
        Tool("gzip with fields", FILTER, "gz", make_gzip_with_fields, behind=True),
        Tool("gzip of the old magic", FILTER, "gz", make_gzip_of_old_magic, weight=5),
        Tool("pigz", FILTER, "gz", "pigz -b 128 -i -c {in} > {out}", behind=True, streams=True),
        Tool("pigz zlib", FILTER, "zz", "pigz -z -c {in} > {out}"),
        Tool("pigz zip", FILTER, "zip", "pigz -K -c {in} > {out}", behind=True),
        Tool("zopfli", FILTER, "gz", "zopfli -c --i1 {in} > {out}", behind=True, weight=4),
        Tool("zopfli zlib", FILTER, "zz", "zopfli -c --i1 --zlib {in} > {out}", weight=4),
        Tool("bzip2", FILTER, "bz2", "bzip2 -c {in} > {out}", behind=True, streams=True, weight=20),
        Tool("pbzip2", FILTER, "bz2", "pbzip2 -b1 -c {in} > {out}", behind=True, streams=True),
        Tool("lbzip2", FILTER, "bz2", "lbzip2 -1 -c {in} > {out}", behind=True, streams=True),
        Tool("xz", FILTER, "xz", "xz -c {in} > {out}", behind=True, streams=True, weight=20),
        Tool("xz with a filter", FILTER, "xz", make_xz_with_filter, behind=True, streams=True, needs="xz"),
        Tool("xz of blocks", FILTER, "xz", "xz --block-size=40 -c {in} > {out}", behind=True, streams=True, weight=4),
        Tool("pixz", FILTER, "xz", "(pixz -t < {in}) > {out}", behind=True, weight=4, needs="pixz"),
        Tool("lzma", FILTER, "lzma", "xz --format=lzma -c {in} > {out}", behind=True),
        Tool("lzma of an odd dictionary", FILTER, "lzma", "xz --format=lzma --lzma1=dict=5000000,pb=0 -c {in} > {out}"),
        Tool("lzip", FILTER, "lz", "lzip -c {in} > {out}", streams=True),
        Tool("plzip", FILTER, "lz", "plzip -c {in} > {out}", streams=True),
        Tool("clzip", FILTER, "lz", "clzip -0 -c {in} > {out}", streams=True, weight=4),
        Tool("zstd", FILTER, "zst", "zstd -q -c {in} > {out}", behind=True, streams=True, weight=20),
        Tool("zstd long", FILTER, "zst", "zstd -q --long=27 --no-check -19 -c < {in} > {out}", behind=True,
             streams=True),
        Tool("zstd behind a skippable frame", FILTER, "zst",
             "(printf '\\x50\\x2a\\x4d\\x18\\x04\\0\\0\\0abcd'; zstd -q -c {in}) > {out}", behind=True, needs="zstd"),
        Tool("lz4", FILTER, "lz4", "lz4 -q -z -c {in} > {out}", behind=True, streams=True),
        Tool("lz4 of linked blocks", FILTER, "lz4", "lz4 -q -z -BD -B4 --no-frame-crc -c {in} > {out}", behind=True,
             streams=True),
        Tool("lz4 of the old format", FILTER, "lz4", "lz4 -q -z -l -c {in} > {out}", cut=False),
        Tool("compress", FILTER, "Z", "compress -f -c {in} > {out}", cut=False, padded=False),
        Tool("compress of 12 bits", FILTER, "Z", "compress -b 12 -f -c {in} > {out}", cut=False, padded=False),
        Tool("lzop", FILTER, "lzo", "lzop -q -c {in} > {out}"),
        Tool("lrzip", FILTER, "lrz", "lrzip -q -o {out} {in}", weight=3),
        Tool("lrzip zpaq", FILTER, "lrz", "lrzip -q -z -o {out} {in}", weight=2),
        Tool("rzip", FILTER, "rz", "rzip -k -o {out} {in}"),
        Tool("uuencode", FILTER, "uu", "uuencode {in} {in} > {out}", cut=False, weight=4),
        Tool("uuencode base64", FILTER, "uu", "uuencode -m {in} {in} > {out}", cut=False, weight=4),
        Tool("mpack", FILTER, "eml", "mpack -s wrapped -c application/octet-stream -o {out} {in}", cut=False, weight=4),
        Tool("zip with a link's mode", FILTER, "zip", make_zip_with_link_mode, behind=True, weight=5),
        Tool("zip of 64 bits", FILTER, "zip", make_zip64, behind=True),
        Tool("tar of a pax size", FILTER, "tar", make_tar_of_pax_size, behind=True, cut=False),
        Tool("tar of a binary size", FILTER, "tar", make_tar_of_binary_size, behind=True, cut=False),
        Tool("tar of an odd type", FILTER, "tar", make_tar_of_odd_type, behind=True, cut=False),
        Tool("tar of an old checksum", FILTER, "tar", make_tar_of_old_checksum, cut=False),
        Tool("msibuild", FILTER, "msi", make_msi, cut=False, weight=4, needs="msibuild"),
    ]


def archive_tools():
    return [
        Tool("tar.gz", ARCHIVE, "tar.gz", "tar -czf {out} *", behind=True),
        Tool("tar.bz2", ARCHIVE, "tar.bz2", "tar -cjf {out} *", behind=True),
        Tool("tar.xz", ARCHIVE, "tar.xz", "tar -cJf {out} *", behind=True),
        Tool("tar.zst", ARCHIVE, "tar.zst", "tar --zstd -cf {out} *", behind=True),
        Tool("tar.Z", ARCHIVE, "tar.Z", "tar -cZf {out} *", cut=False, padded=False, needs="tar compress", weight=4),
        Tool("tar.lzo", ARCHIVE, "tar.lzo", "tar --lzop -cf {out} *", needs="tar lzop", weight=4),
        Tool("tarlz", ARCHIVE, "tar.lz", "tarlz -cf {out} *"),
        Tool("tar with a label", ARCHIVE, "tar", "tar -V label -cf {out} *", behind=True, cut=False, weight=4),
        Tool("pax", ARCHIVE, "tar", "(ls | pax -w -x ustar) > {out}", behind=True, cut=False, needs="pax"),
        Tool("pax sv4crc", ARCHIVE, "cpio", "(ls | pax -w -x sv4crc) > {out}", behind=True, needs="pax", weight=4),
        Tool("afio", ARCHIVE, "afio", "(ls | afio -o {out})", weight=4, needs="afio"),
        Tool("afio packed", ARCHIVE, "afio", "(ls | afio -o -Z -T 0 {out})", weight=4, needs="afio"),
        Tool("zip", ARCHIVE, "zip", "zip -q {out} *", behind=True),
        Tool("zip stored", ARCHIVE, "zip", "zip -q -0 {out} *", behind=True),
        Tool("zip bzip2", ARCHIVE, "zip", "zip -q -Z bzip2 {out} *", behind=True),
        Tool("zip with descriptors", ARCHIVE, "zip", "zip -q -fd {out} *", behind=True),
        Tool("zip forced to 64 bits", ARCHIVE, "zip", "zip -q -fz {out} *", behind=True),
        Tool("zip with a comment", ARCHIVE, "zip", "(zip -q {out} * && echo comment | zip -qz {out})", behind=True),
        Tool("zip with a password", ARCHIVE, "zip", "zip -q -P secret {out} *", behind=True),
        Tool("zip by a pipe", ARCHIVE, "zip", "(zip -q - * | cat) > {out}", behind=True),
        Tool("zip corrected behind a program", ARCHIVE, "exe", "(zip -q {out}.zip * && cat /bin/true {out}.zip > {out}"
             " && rm {out}.zip && zip -q -A {out})", cut=False, needs="zip"),
        Tool("advzip", ARCHIVE, "zip", "advzip -q -a -3 {out} *", behind=True, weight=4),
        Tool("cpio", ARCHIVE, "cpio", "(ls | cpio -o --quiet -H newc) > {out}", behind=True, needs="cpio"),
        Tool("cpio odc", ARCHIVE, "cpio", "(ls | cpio -o --quiet -H odc) > {out}", behind=True, needs="cpio"),
        Tool("cpio crc", ARCHIVE, "cpio", "(ls | cpio -o --quiet -H crc) > {out}", behind=True, needs="cpio"),
        Tool("cpio bin", ARCHIVE, "cpio", "(ls | cpio -o --quiet -H bin) > {out}", needs="cpio"),
        Tool("cpio tar", ARCHIVE, "tar", "(ls | cpio -o --quiet -H tar) > {out}", cut=False, needs="cpio", weight=4),
        Tool("cpio hpbin", ARCHIVE, "cpio", "(ls | cpio -o --quiet -H hpbin) > {out}", needs="cpio", weight=4),
        Tool("ar", ARCHIVE, "a", "ar rc {out} *"),
        Tool("gcab", ARCHIVE, "cab", "gcab -c {out} *", behind=True),
        Tool("gcab zipped", ARCHIVE, "cab", "gcab -c -z {out} *", behind=True),
        Tool("arj", ARCHIVE, "arj", "arj a -i {out} *", weight=6),
        Tool("arj stored", ARCHIVE, "arj", "arj a -i -m0 {out} *", weight=4),
        Tool("arj with a password", ARCHIVE, "arj", "arj a -i -gsecret {out} *", weight=4),
        Tool("arc", ARCHIVE, "arc", "arc a {out} *", weight=4, cut=False),
        Tool("dar", ARCHIVE, "dar", "(dar -Q -q -c {out} && mv {out}.1.dar {out})", weight=4, needs="dar"),
        Tool("dar packed", ARCHIVE, "dar", "(dar -Q -q -zgzip -c {out} && mv {out}.1.dar {out})", weight=4,
             needs="dar"),
        Tool("zpaq", ARCHIVE, "zpaq", "zpaq a {out} * -m1", weight=4),
        Tool("makeself", ARCHIVE, "run", "makeself --nox11 . {out} wrapped true", cut=False, weight=4),
        Tool("makeself plain", ARCHIVE, "run", "makeself --nox11 --nocomp . {out} wrapped true", cut=False, weight=4,
             needs="makeself"),
        Tool("dpkg-deb", ARCHIVE, "deb", make_deb, needs="dpkg-deb"),
        Tool("rpmbuild", ARCHIVE, "rpm", make_rpm, weight=6, needs="rpmbuild"),
    ]


def image_tools():
    """Disks and file systems."""
    fat = "mformat -C -f 1440 -i {work} :: && mcopy -i {work} * ::"
    rows = [
        Tool("genisoimage", ARCHIVE, "iso", "genisoimage -quiet -R -J -o {out} .", behind=True, cut=False),
        Tool("genisoimage plain", ARCHIVE, "iso", "genisoimage -quiet -o {out} .", behind=True, cut=False),
        Tool("genisoimage hidden from joliet", ARCHIVE, "iso", "genisoimage -quiet -J -hide-joliet {in} -o {out} .",
             cut=False, weight=5),
        Tool("genisoimage only in joliet", ARCHIVE, "iso", "genisoimage -quiet -J -hide {in} -o {out} .", cut=False,
             weight=5),
        Tool("genisoimage only in udf", ARCHIVE, "iso", "genisoimage -quiet -udf -hide {in} -o {out} .", cut=False,
             weight=5),
        Tool("genisoimage only in hfs", ARCHIVE, "iso", "genisoimage -quiet -hfs -hide {in} -o {out} .", cut=False,
             weight=5),
        Tool("xorriso", ARCHIVE, "iso", "xorriso -as mkisofs -quiet -J -R -o {out} .", behind=True, cut=False),
        Tool("xorriso packed", ARCHIVE, "iso", "xorriso -outdev {out} -blank as_needed -map . /"
             " -set_filter_r --zisofs / -- -commit", cut=False, weight=5),
        Tool("mkfs.erofs", ARCHIVE, "erofs", "mkfs.erofs {out} .", weight=4),
        Tool("mkfs.cramfs", ARCHIVE, "cramfs", "mkfs.cramfs . {out}", weight=4),
        Tool("genromfs", ARCHIVE, "romfs", "genromfs -d . -f {out}", weight=4),
        Tool("mkfs.jffs2", ARCHIVE, "jffs2", "mkfs.jffs2 -r . -o {out}", weight=4, cut=False),
        Tool("mkfs.ubifs", ARCHIVE, "ubifs", "mkfs.ubifs -r . -m 512 -e 15872 -c 100 -o {out}", weight=4),
        Tool("mkntfs", ARCHIVE, "ntfs", make_ntfs, weight=2, needs="mkntfs ntfscp"),
        Tool("mke2fs", ARCHIVE, "ext2", "mke2fs -q -t ext2 -d . {out} 1M", weight=4),
        Tool("mke2fs ext4", ARCHIVE, "ext4", "mke2fs -q -t ext4 -d . {out} 2M", weight=4),
        Tool("mformat", ARCHIVE, "fat", fat.replace("{work}", "{out}"), weight=4, needs="mformat mcopy"),
        Tool("mformat without text", ARCHIVE, "fat", make_fat_without_text, weight=4, needs="mformat mcopy"),
        Tool("disk with a table", ARCHIVE, "img", make_disk_with_table, weight=4, needs="mformat mcopy", cut=False),
        Tool("wimlib-imagex", ARCHIVE, "wim", "wimlib-imagex capture . {out}", behind=True),
        Tool("wimlib-imagex solid", ARCHIVE, "wim", "wimlib-imagex capture . {out} --solid --compress=LZMS",
             behind=True, weight=4),
    ]
    for packing in ["gzip", "xz", "lzo", "lz4", "zstd", "lzma"]:
        rows.append(Tool(f"mksquashfs {packing}", ARCHIVE, "squashfs",
                         f"mksquashfs . {{out}} -quiet -no-progress -comp {packing}", behind=True, weight=3))
    for form in ["qcow2", "vmdk", "vdi", "vhdx", "vpc", "qcow"]:
        more = " -o subformat=fixed" if form == "vpc" else ""
        rows.append(Tool(f"qemu-img {form}", ARCHIVE, form,
                         f"({fat.replace('{work}', '{out}.raw')} && "
                         f"qemu-img convert -O {form}{more} {{out}}.raw {{out}}; rm {{out}}.raw)", weight=1, needs="qemu-img mformat mcopy", cut=form != "vpc"))
    return rows


def seven_zip_tools():
    rows = []

    def add(name, options, ending="7z", weight=2):
        rows.append(Tool(name, ARCHIVE, ending, f"7zz a {options} {{out}} *", behind=True, weight=weight))

    for method in ["LZMA", "LZMA2", "BZip2", "Deflate", "Deflate64", "PPMd", "Copy"]:
        add(f"7z {method}", f"-m0={method}", weight=4)
    for name in ["Delta:4", "BCJ", "BCJ2", "PPC", "ARM", "ARMT", "ARM64", "IA64", "SPARC", "RISCV", "Swap2", "Swap4"]:
        add(f"7z filter {name}", f"-mf={name}")
    for first, second in [("Delta:1", "BZip2"), ("BCJ", "Deflate"), ("Swap4", "LZMA"), ("LZMA", "BZip2"),
                          ("Delta:2", "PPMd"), ("ARM64", "Deflate64"), ("Copy", "LZMA2")]:
        add(f"7z {first} and {second}", f"-m0={first} -m1={second} -mb0s0:1", weight=1)
    add("7z not solid", "-ms=off")
    add("7z with a plain header", "-mhc=off")
    add("7z solid with a password", "-psecret", weight=4)
    add("7z stored with a password", "-psecret -mx=0", weight=4)
    add("7z with hidden names", "-psecret -mhe=on", weight=4)
    for method in ["LZMA", "Deflate64", "BZip2", "PPMd", "XZ", "Copy"]:
        add(f"7z zip {method}", f"-tzip -mm={method}", "zip", 4)
    add("7z zip AES", "-tzip -psecret -mem=AES256", "zip", 4)
    add("7z zip AES with LZMA", "-tzip -psecret -mem=AES128 -mm=LZMA", "zip", 4)
    rows.append(Tool("7z of two methods", ARCHIVE, "7z",
                     "(7zz a -m0=LZMA2 {out} /etc/hostname && 7zz a -m0=BZip2 {out} *)", behind=True))
    rows.append(Tool("7z wim", ARCHIVE, "wim", "7zz a -twim {out} *", behind=True, weight=4))
    rows.append(Tool("7z tar", ARCHIVE, "tar", "7zz a -ttar -mm=posix {out} *", behind=True, cut=False, weight=4))
    return rows


def many_forms():
    """Programs that write several formats."""
    rows = []
    for form in ["gnu", "oldgnu", "posix", "ustar", "v7"]:
        rows.append(Tool(f"tar {form}", ARCHIVE, "tar", f"tar --format={form} -cf {{out}} *", behind=form != "v7",
                         cut=False, weight=5))
    for form, ending in [("7zip", "7z"), ("ar", "a"), ("arbsd", "a"), ("cpio", "cpio"), ("iso9660", "iso"),
                         ("pax", "tar"), ("gnutar", "tar"), ("ustar", "tar"), ("v7tar", "tar"),
                         ("xar", "xar"), ("zip", "zip"), ("warc", "warc"), ("newc", "cpio"), ("bin", "cpio"),
                         ("pwb", "cpio")]:
        # Of a WARC, the bytes of a member are plain, and anything may surround them.
        rows.append(Tool(f"bsdtar {form}", ARCHIVE, ending, f"bsdtar --format {form} -cf {{out}} *",
                         behind=form not in ("ar", "arbsd", "v7tar", "bin", "pwb", "warc"),
                         cut=form in ("7zip", "zip", "xar"), weight=4))
    for packing, program in [("lrzip", "lrzip"), ("lzop", "lzop"), ("lz4", ""), ("uuencode", ""), ("b64encode", "")]:
        rows.append(Tool(f"bsdtar --{packing}", ARCHIVE, "tar." + packing, f"bsdtar --{packing} -cf {{out}} *",
                         cut=False, weight=2, needs=f"bsdtar {program}"))
    for method in ["store", "deflate"]:
        rows.append(Tool(f"bsdtar zip {method}", ARCHIVE, "zip", "bsdtar --format zip --options "
                         f"zip:compression={method} -cf {{out}} *", behind=True, weight=3))
    for level in ["zipcrypt", "aes128", "aes256"]:
        rows.append(Tool(f"bsdtar zip {level}", ARCHIVE, "zip", "bsdtar --format zip --passphrase secret --options "
                         f"zip:encryption={level} -cf {{out}} *", behind=True, weight=3))
    for method, option in [("0", "z"), ("5", "o5"), ("6", "o6"), ("7", "o7")]:
        rows.append(Tool(f"lha -lh{method}-", ARCHIVE, "lzh", f"jlha -aq{option} {{out}} *", weight=3, cut=False,
                         needs="jlha"))
    return rows


def all_tools():
    return stream_tools() + archive_tools() + image_tools() + seven_zip_tools() + many_forms()


def wrap(tool, name, content):
    """The wrapped content; None when the tool refuses."""
    with tempfile.TemporaryDirectory() as work:
        folder, out = f"{work}/in", f"{work}/out.{tool.ending}"
        os.makedirs(folder)
        write(f"{folder}/{name}", content)
        if tool.kind == ARCHIVE and random.random() < 0.5:
            other = random.choice([random.randbytes(random.randrange(1, 5000)), b"some text\n" * 100])
            write(f"{folder}/{random.choice(['a', 'z'])}.bin", other)
        if callable(tool.command):
            return tool.command(folder, name)
        good = run(tool.command.replace("{in}", name).replace("{out}", out), folder)
        return read(out) if good and os.path.exists(out) else None


# --- Taking out ----------------------------------------------------------------------------------------------------

# Commands that ordinary users have. {f}: the file; the working folder is empty, and takes what comes out.
UNPACKERS = [
    "7zz x -psecret -y -bd {f}", "bsdtar --passphrase secret -xf {f}", "tar -xf {f}", "unzip -qq -o -P secret {f}",
    "cpio -idm --quiet < {f}", "gzip -dc < {f} > x", "bzip2 -dc < {f} > x", "xz -dc < {f} > x", "zstd -dc < {f} > x",
    "lz4 -dc < {f} > x", "lzip -dc < {f} > x", "xz --format=lzma -dc < {f} > x", "pigz -dc < {f} > x",
    "cabextract -q {f}", "arj x -y -gsecret {f}", "lha -xfq {f}", "lzop -dc < {f} > x", "compress -dc < {f} > x",
    "dpkg-deb -x {f} .", "rpm2cpio < {f} | cpio -idm --quiet", "ar x {f}", "wimlib-imagex apply {f} 1 .",
    "unsquashfs -q -f -d . {f}", "busybox unzip -qo {f}", "unar -q -p secret {f}", "uudecode -o x {f}",
    "lrzip -dqo x {f}", "rzip -dko x {f}", "zpaq x {f}", "arc x {f}", "afio -i {f}", "pax -r < {f}",
    "bash {f} --noexec --target .",
]


def taken_out(content, inner, ending):
    """The first command that takes the inner content out of the content; None: no command does."""
    with tempfile.TemporaryDirectory() as work:
        file = f"{work}/file.{ending}"
        write(file, content)
        for command in UNPACKERS:
            if not shutil.which(command.split()[0]) or ("bash" in command and ending != "run"):
                continue
            folder = tempfile.mkdtemp(dir=work)
            run(command.replace("{f}", file), folder, seconds=10)
            for base, _, names in os.walk(folder):
                for path in (f"{base}/{name}" for name in names):
                    if os.path.isfile(path) and not os.path.islink(path) and os.path.getsize(path) == len(inner) and (
                            read(path) == inner):
                        return command
    return None
