#include "iso/file_ahead.h"

#include <algorithm>
#include <utility>

#include "common/result_codes.h"

namespace kx::iso {

unique_hfile OpenForReading(const std::wstring& path) {
    return unique_hfile(::CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                      nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL | FILE_FLAG_SEQUENTIAL_SCAN,
                                      nullptr));
}

FilesAhead::Opened FilesAhead::Open(const AheadFile& file) {
    Opened o;
    if (file.path.empty()) return o;
    ReadHandle f;
    if (file.held && !file.held->lent.exchange(true)) {
        f = ReadHandle(file.held);
        // An earlier reader may have left the position anywhere.
        if (!::SetFilePointerEx(f.get(), LARGE_INTEGER{}, nullptr, FILE_BEGIN)) {
            o.hr = LastErrorHresult();
            return o;
        }
    } else {
        unique_hfile opened = OpenForReading(file.path);
        if (!opened) {
            o.hr = LastErrorHresult();
            return o;
        }
        f = ReadHandle(std::move(opened));
    }
    // Size and time only: the whole handle information would also ask for
    // the volume's serial number, a costly question per file.
    LARGE_INTEGER length{};
    FILETIME written{};
    if (!::GetFileSizeEx(f.get(), &length) || !::GetFileTime(f.get(), nullptr, nullptr, &written)) {
        o.hr = LastErrorHresult();
        return o;
    }
    o.sizeNow = static_cast<uint64_t>(length.QuadPart);
    if (o.sizeNow != file.size || ::CompareFileTime(&written, &file.modified) != 0) {
        o.changed = true;
        return o;
    }
    if (file.size > kWholeFileBytes) {
        o.file = std::move(f);
        return o;
    }
    o.data.resize(static_cast<size_t>(file.size));
    for (size_t done = 0; done < o.data.size();) {
        DWORD got = 0;
        if (!::ReadFile(f.get(), o.data.data() + done, static_cast<DWORD>(o.data.size() - done), &got, nullptr)) {
            o.hr = LastErrorHresult();
            return o;
        }
        if (got == 0) {
            o.ended = true;
            o.sizeNow = done;
            return o;
        }
        done += got;
    }
    return o;
}

FilesAhead::~FilesAhead() {
    {
        Monitor::Hold hold(mu_);
        stop_ = true;
    }
    Monitor::WakeAll(work_);
    for (auto& t : workers_) t.join();
}

void FilesAhead::DropLocked(size_t from, size_t to, std::vector<Opened>& dropped) {
    for (size_t i = from; i < to && i < claim_; ++i) {
        Slot& s = slots_[i % kWindow];
        if (s.ready && s.index == i) {
            s.ready = false;
            dropped.push_back(std::move(s.opened));
        }
    }
}

void FilesAhead::Work() {
    Monitor::Hold hold(mu_);
    for (;;) {
        mu_.Wait(work_, [&] { return stop_ || (claim_ < files_.size() && claim_ < base_ + kWindow); });
        if (stop_) return;
        const size_t i = claim_++;
        const uint64_t round = round_;
        mu_.Unlock();
        Opened o = Open(files_[i]);
        mu_.Lock();
        if (round == round_ && i >= base_) {
            Slot& s = slots_[i % kWindow];
            s.ready = true;
            s.index = i;
            s.opened = std::move(o);
            if (i == base_) Monitor::WakeAll(ready_);
        } else {
            // Passed over by the reader: closed here, outside the lock.
            mu_.Unlock();
            o = Opened{};
            mu_.Lock();
        }
    }
}

FilesAhead::Opened FilesAhead::Take(size_t index) {
    std::vector<Opened> dropped;  // closed after the lock is left
    Monitor::Hold hold(mu_);
    if (!started_) {
        started_ = true;
        try {
            for (unsigned t = 0; t < kWorkers; ++t) workers_.emplace_back([this] { Work(); });
        } catch (...) {
            // Fewer workers, or none.
        }
    }
    if (workers_.empty()) {
        mu_.Unlock();
        Opened o = Open(files_[index]);
        mu_.Lock();
        return o;
    }
    if (index == base_) {
        // The file expected next: nothing to drop.
    } else if (index > base_ && index < base_ + kWindow) {
        DropLocked(base_, index, dropped);
        base_ = index;
        claim_ = std::max(claim_, index);
        Monitor::WakeAll(work_);
    } else {
        DropLocked(base_, base_ + kWindow, dropped);
        ++round_;
        base_ = claim_ = index;
        Monitor::WakeAll(work_);
    }
    Slot& s = slots_[index % kWindow];
    mu_.Wait(ready_, [&] { return s.ready && s.index == index; });
    s.ready = false;
    Opened o = std::move(s.opened);
    base_ = index + 1;
    Monitor::WakeOne(work_);
    return o;
}

}  // namespace kx::iso
