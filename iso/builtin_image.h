// The library's own file-system image object: the image service's
// interfaces (IFileSystemImage, IFsiDirectoryItem, IFileSystemImageResult
// and an IStream over the image) for what this library calls, over the
// ISO 9660 + Joliet layout of iso/iso9660_layout.h.
//
// - Files come from streams (AddFile) or from folder trees (AddTree). A
//   tree is read when it is added (names, sizes, last-write times, and
//   every file opened to be sure it can be read); its data is read only
//   while the image stream is read. The handle opened at the addition is
//   kept for that (up to `heldFiles` files per image object, 16384 by
//   default), so that each file is opened once; files past that number are
//   opened again by name. A file that has changed size or time since, or
//   can no longer be opened, fails that read with 0xC0AAB128 (data stream
//   inconsistency) or the system's error, and the debug log names it. A
//   held file that is renamed or deleted meanwhile is still written, with
//   its data. The files of a tree are opened a few at a time ahead of the
//   reader (iso/file_ahead.h), and CopyTo reads the image on a helper
//   thread while it writes on the calling thread.
// - Held files stay open (shared for reading, writing and deleting) until
//   the image object and every result and stream made from it are
//   released; in that time a program that asks for one of them exclusively
//   is refused.
// - CreateResultImage takes a snapshot: later additions do not change a
//   result already made. Each get_ImageStream gives a stream of its own
//   position over the same snapshot.
// - Size limits: none until ChooseImageDefaultsForMediaType or
//   put_FreeMediaBlocks sets one; an addition that would pass it fails with
//   0xC0AAB120 and adds nothing.
// - Names inside the image are compared without regard to case; adding a
//   name that is there already fails with 0xC0AAB112 and adds nothing.
// Methods outside that set answer E_NOTIMPL.
#pragma once

#include <cstddef>

#include "platform/imapi2/imapi2_fs.h"

namespace kx::iso {

// Files of added trees an image object keeps open by default.
constexpr size_t kDefaultHeldFiles = 16384;

// A new image object (reference count 1), ISO 9660 + Joliet.
HRESULT CreateBuiltinImage(IFileSystemImage** image, size_t heldFiles = kDefaultHeldFiles);

}  // namespace kx::iso
