// kxha: the operator's command-line tool over KestrixHA.dll.
#pragma once

#include <string>
#include <vector>

namespace kxha {

using Args = std::vector<std::wstring>;

struct Command {
    const wchar_t* name;
    const wchar_t* summary;
    const wchar_t* usage;  // shown by --help
    int (*run)(const Args& args);
};

const std::vector<Command>& Commands();

// Output: UTF-8 on stdout/stderr, whatever the console code page.
void Out(const std::wstring& text);
void Err(const std::wstring& text);

// Prints "error: <what> failed, rc = <code> (0x...): <meaning>" and returns
// the tool's failure exit status. Without a meaning, the system's text for
// the code.
int Fail(const std::wstring& what, unsigned long code, const wchar_t* meaning = nullptr);

// The library's failure without a system code.
constexpr unsigned long kNoCode = 0xFFFFFFFF;

bool HasFlag(const Args& args, const wchar_t* flag);

int CmdVersion(const Args& args);
int CmdLog(const Args& args);
int CmdBitmap(const Args& args);
int CmdLock(const Args& args);
int CmdMerges(const Args& args);
int CmdIntact(const Args& args);
int CmdVcm(const Args& args);
int CmdDemo(const Args& args);
int CmdGuest(const Args& args);

inline const wchar_t* const kGuestUsage =
    L"kxha guest info <Windows folder> [--json]\n"
    L"       kxha guest reg <hive file> [key path] [--depth N] [--json]\n"
    L"       kxha guest safeboot <boot volume> <Windows folder> [--uefi]\n"
    L"       kxha guest reset-markers <Windows folder> [--hyperv]\n"
    L"       kxha guest inject-drivers <Windows folder>\n"
    L"       kxha guest ec2 <Windows folder>\n"
    L"       kxha guest diff <hive file A> <hive file B> [--json]\n"
    L"       kxha guest fixup <Windows folder> --target hyperv|vmware|xen|ec2|nutanix [--hostname NAME] [--rdp]\n"
    L"                        [--boot-volume <folder> [--uefi]]\n"
    L"       kxha guest cd-letter <Windows folder> <letter>\n"
    L"       kxha guest inject-service <Windows folder> <helper service folder>\n"
    L"       kxha guest add-startup-script <Windows folder> <script file> [parameters]\n"
    L"\n"
    L"guest diff lists the keys and values added, removed and changed from A to B; it exits 0\n"
    L"whenever both hives were read, with or without differences (1: a hive could not be read).\n"
    L"guest fixup runs the repair a conversion makes before the guest's first start and prints\n"
    L"what it changed in each hive; it stops at the first failing step (exit 1).";

// Boot driver injection and EC2 preparation of an offline guest, printing
// the keys and values they changed (cmd_guest_drivers.cpp).
int GuestInjectDrivers(const std::wstring& folder);
int GuestEc2(const std::wstring& folder);

// Two hive files compared, and the whole repair of a guest (cmd_guest_fixup.cpp).
int GuestDiff(const std::vector<std::wstring>& pos, const Args& args);
int GuestFixup(const std::vector<std::wstring>& pos, const Args& args);

// The drive letter of the CD-ROM a guest gets on Hyper-V (cmd_guest_cd.cpp).
int GuestCdLetter(const std::wstring& folder, const std::wstring& letter);
// A script copied into a guest that runs once at its next start (cmd_guest_script.cpp).
int GuestAddStartupScript(const std::vector<std::wstring>& pos);

// Hyper-V book-keeping: mark files, destination sizes, recovery-information
// paths and the pending-delete record (cmd_hyperv.cpp).
int CmdHyperV(const Args& args);
// The host's adapters, facts and name resolution, and adapter changes (cmd_host.cpp).
int CmdHost(const Args& args);
inline const wchar_t* const kHostUsage =
    L"kxha host adapters [--json]\n"
    L"       kxha host facts [--json]\n"
    L"       kxha host resolve <name> [--json]\n"
    L"       kxha host set-dhcp <adapter> --yes\n"
    L"       kxha host set-static <adapter> --ip A[,B...] --mask M[,N...] --yes\n"
    L"       kxha host set-gateways <adapter> <gateway>[,<gateway>...] [--metrics N[,N...]] --yes\n"
    L"       kxha host set-dns <adapter> [--servers A[,B...]] [--domain D] [--suffixes S[,T...]]\n"
    L"                         [--register full|domain|both|none] --yes\n"
    L"       kxha host set-wins <adapter> <primary> [secondary] --yes\n"
    L"\n"
    L"<adapter> is the adapter's name as 'host adapters' shows it (the first adapter whose name starts so\n"
    L"is changed). Without --yes a change is only described (exit 2). set-dns without options enables DNS;\n"
    L"--servers \"\" clears the DNS servers. Exit 0 when done (also when WMI says a restart is needed), 1 on\n"
    L"failure with the code WMI or the library returned.";
// Disk geometry: what a VHD or VHDX file holds, and the repair for Hyper-V (cmd_disk.cpp).
int CmdDisk(const Args& args);
inline const wchar_t* const kDiskUsage =
    L"kxha disk info <vhd or vhdx file> [--json]\n"
    L"       kxha disk fix-chs <vhd or vhdx file> <volume offset> [--volume NAME]\n"
    L"\n"
    L"disk info reads the file without writing it: format, type, size, geometry, sector and block size,\n"
    L"parents, disk signature, the MBR's active entry and its boot sector's geometry.\n"
    L"disk fix-chs gives the boot sector of the volume at <volume offset> (bytes; 0x... for hex) and the\n"
    L"active entry the geometry Hyper-V presents, and prints the fields it changed.";
// ISO images (cmd_iso.cpp).
int CmdIso(const Args& args);
inline const wchar_t* const kIsoUsage =
    L"kxha iso create <folder> <image> [--volume NAME] [--progress]\n"
    L"\n"
    L"The folder becomes a top-level folder of the image. A progress line follows the image's\n"
    L"growth on a terminal (always with --progress).";

// Shadow copies of host volumes (cmd_vss.cpp).
int CmdVss(const Args& args);
inline const wchar_t* const kVssUsage =
    L"kxha vss snapshot <volume or path>... [--keep] [--json]\n"
    L"\n"
    L"Makes one shadow-copy set of the volumes that hold the given drives, folders or volume names,\n"
    L"shows each volume's shadow device and snapshot id, and removes the set again (--keep leaves it).\n"
    L"Exit 0 when the set was made, 1 with the service's code when not.";

}  // namespace kxha
// VMware guest support: guest identifiers, .NET versions, VMware Tools and VDDK (cmd_vmware.cpp).
namespace kxha {
int CmdVmware(const Args& args);
inline const wchar_t* const kVmwareUsage =
    L"kxha vmware guest-id <major.minor[.build]> [--server] [--x86] [--json]\n"
    L"       kxha vmware guest-id <Windows folder> [--json]\n"
    L"       kxha vmware dotnet [<Windows folder>] [--json]\n"
    L"       kxha vmware tools-status [--json]\n"
    L"       kxha vmware vddk [--json]\n"
    L"\n"
    L"guest-id gives the VMware guest OS identifier of a Windows release (client x64 unless told) or\n"
    L"of the offline guest whose Windows folder is given (read from its hives); a\n"
    L"release it does not know gets the fallback identifier and exit 1. dotnet lists the .NET Framework\n"
    L"versions of the host, or of the offline guest whose Windows folder is given. tools-status shows\n"
    L"the VMware Tools service's state; vddk the version of the VDDK library found.";
}  // namespace kxha
// Disks and volumes through the disk service (cmd_disks.cpp).
namespace kxha {
int CmdDisks(const Args& args);
inline const wchar_t* const kDisksUsage =
    L"kxha disks [list] [--json]\n"
    L"       kxha disks check-signature <identity>... [--json]\n"
    L"       kxha disks file-attrs <path> [--json]\n"
    L"       kxha disks raw [--json]\n"
    L"\n"
    L"disks lists the on-line disks (number, size, partition style, signature or GUID) with their\n"
    L"extents, and the on-line volumes (GUID, letter, flags, dynamic). An identity is an MBR signature\n"
    L"as ten decimal digits or a GPT disk GUID; check-signature exits 0 when no on-line disk carries\n"
    L"one of them, 3 when one does or the check could not be made. file-attrs: whether the file is\n"
    L"compressed or encrypted, and whether its volume compresses. raw: the largest disk's size, whether\n"
    L"a disk is over 2 TiB, and the system disk's MBR signature, read from the disks directly (exit 1\n"
    L"when one of them could not be read).";
}  // namespace kxha

// Raw disk and file checks (cmd_disks_files.cpp), sub-commands of "kxha disks".
namespace kxha {
// `args`: what follows "file-attrs" / "raw".
int RunDisksFileAttrs(const Args& args);
int RunDisksRaw(const Args& args);
}  // namespace kxha
// iSCSI: the initiator's name, discovery, attach and logout (cmd_iscsi.cpp).
namespace kxha {
int CmdIscsi(const Args& args);
inline const wchar_t* const kIscsiUsage =
    L"kxha iscsi iqn [--json]\n"
    L"       kxha iscsi discover <portal address[:port]> [--json]\n"
    L"       kxha iscsi attach <target name> [--portal <address[:port]>] [--json]\n"
    L"       kxha iscsi logout <session id | target name> [--json]\n"
    L"\n"
    L"discover lists every target the initiator knows after asking the portal, with whether it is\n"
    L"a Nutanix target and whether it is reached through that portal. logout of a session or target\n"
    L"that has none left is not an error.";
}  // namespace kxha
