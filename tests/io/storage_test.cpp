// Device access, trims, PltGetVolInfo and the file extent map, against
// simulated devices, volumes and files (Wine shows none of them).
#include <string.h>

#include <string>

#include "io_support.h"

namespace {

using namespace zendra::sim;

const wchar_t kGuid[] = L"\\\\?\\Volume{5a5a0000-0000-0000-0000-000000000001}\\";

Machine Storage() {
    Machine m;
    m.devices = {{L"SimNow", Trim::AtOnce, std::vector<uint8_t>(64)},
                 {L"SimLater", Trim::Pending},
                 {L"SimNoTrim", Trim::Unsupported, std::vector<uint8_t>(64), 40}};
    Volume s{L'S', kGuid, 3, 1048576, 1 << 30, 8, 512}, n = s;
    n.letter = L'N', n.guidPath[n.guidPath.size() - 3] = L'2', n.disk = kNoDisk;
    m.volumes = {s, n};
    m.files = {{L"S:\\data.bin", 0, {{1, 100}, {3, 7}, {4, -1}, {6, 1ll << 40}}},
               {L"S:\\lies.bin", 2, {{3, 1}, {4, 2}}, 100000},
               {L"S:\\many.bin", 0, std::vector<Extent>(4097, Extent{1, 1})},
               {L"S:\\more.bin", 0, std::vector<Extent>(4098, Extent{1, 1})},
               {L"\\\\server\\share\\f.bin", 0, {{1, 1}}}};
    return m;
}

TEST(Devices, OpenControlTrimTransfersAndTheirRequests) {
    Simulation sim(Storage());
    HANDLE now = nullptr, later = nullptr, noTrim = nullptr;
    std::wstring longest(123, L'd');
    PLT_RESOURCE_STATS before = zt::Snapshot();
    EXPECT_CALLS("87 87 87 0 2 0 0 0", PltOpenDriver(nullptr, L"SimNow"),
                 PltOpenDriver(&now, nullptr), PltOpenDriver(&now, (longest + L"d").c_str()),
                 int(sim.opens().size()), PltOpenDriver(&now, longest.c_str()),
                 PltOpenDriver(&now, L"SimNow"), PltOpenDriver(&later, L"SimLater"),
                 PltOpenDriver(&noTrim, L"SimNoTrim"))
        << "a name of 124 characters would overrun the path: refused before any open";
    EXPECT_MOVED(before, {.FileCount = 3, .LiveFileCount = 3});
    OpenCall o = sim.opens()[1];
    EXPECT_CALLS("2147483648 3 3 128 127", o.access, o.share, o.disposition, o.flags,
                 int(sim.opens()[0].path.size()));
    uint32_t returned = 9;
    const uint32_t expected[12] = {28, 1, 0x80000000u, 0, 0, 32, 16, 0, 4096, 0, 8192, 0};
    EXPECT_CALLS("0 0 1 1 0 0", PltTrimAsync(now, 4096, 8192, nullptr, nullptr),
                 memcmp(sim.controls().back().input.data(), expected, 48),
                 PltTrimAsync(noTrim, 0, 1, nullptr, nullptr),
                 PltIssueDeviceIOCTL(noTrim, 0x2D9404, nullptr, 0, nullptr, 0, &returned),
                 PltIssueDeviceIOCTL(now, 0x2D9404, nullptr, 0, nullptr, 0, &returned), returned);
    io::Seen early, t, none;
    EXPECT_CALLS("87 1 0", PltTrimAsync(now, 0, 1, io::Record, &early),
                 sim.controls().back().overlapped, int(early.calls))
        << "no default pool: the trim went out, no callback follows";
    void *request = nullptr, *dsm = nullptr;
    {
        io::DefaultPool pool;
        ASSERT_EQ(PltTrimAsync(now, 0, 512, io::Record, &t), 0u);
        ASSERT_TRUE(t.done.wait());
        EXPECT_CALLS("0 0 1 1", t.bytes, t.status, t.file == now, t.thread != GetCurrentThreadId());
        EXPECT_CALLS("997 0 1", PltTrimAsync(later, 0, 512, io::Record, &none), sim.pendingTrims(),
                     PltTrimAsync(noTrim, 0, 512, io::Record, &none))
            << "the pending trim was finished before its records were freed";
        // A raw pending trim leaves the request with its caller.
        PltMalloc(&request, sizeof(PLT_DEVICE_COMPLETION), 1, PLT_DEVICE_REQUEST_TAG);
        PltMalloc(&dsm, 48, 1, PLT_DEVICE_REQUEST_TAG);
        auto* r = static_cast<PLT_DEVICE_COMPLETION*>(request);
        r->Completion = io::Record, r->Context = reinterpret_cast<uint64_t>(&none);
        EXPECT_CALLS("997 1 87", PltIssueAsyncTrim(later, 48, dsm, r), sim.pendingTrims(),
                     PltIssueAsyncTrim(now, 48, dsm, nullptr));
        sim.FinishPending();
    }
    EXPECT_CALLS("0 0 0 0 0", PltFree(&request, PLT_DEVICE_REQUEST_TAG),
                 PltFree(&dsm, PLT_DEVICE_REQUEST_TAG), int(none.calls), PltCloseFile(now),
                 PltCloseFile(later));
    // Deferred transfers wait for the request's event and stop at a fault.
    HANDLE device = noTrim;
    io::Seen r;
    char data[16] = "0123456789abcde";
    {
        io::DefaultPool pool;
        void* memory = nullptr;
        PltMalloc(&memory, sizeof(PLT_DEVICE_COMPLETION), 1, PLT_DEVICE_REQUEST_TAG);
        auto* request = static_cast<PLT_DEVICE_COMPLETION*>(memory);
        HANDLE event = CreateEventW(nullptr, TRUE, FALSE, nullptr);
        request->Overlapped.hEvent = event;
        request->Completion = io::Record, request->Context = reinterpret_cast<uint64_t>(&r);
        request->Arg0 = 77, request->Extra = 5;
        EXPECT_CALLS("0 0 0", PltIssueAsyncWrite(device, 16, data, 0, request), r.done.wait(100),
                     int(r.calls))
            << "the completion waits for the request's event";
        SetEvent(event);
        EXPECT_CALLS("1 16 5 77", r.done.wait(), r.bytes, r.status, int64_t(r.file));
        CloseHandle(event);
        EXPECT_CALLS("1117 1117 1 87", PltWriteAsync(device, 32, data, 16, io::Record, &none),
                     PltReadAsync(device, 30, data, 16, io::Record, &none),
                     memcmp(sim.machine().devices[2].data.data() + 32, "01234567", 8) == 0,
                     PltIssueAsyncRead(device, 4, data, 0, nullptr))
            << "a device failing at byte 40: the bytes before it move, no callback follows";
    }
    EXPECT_CALLS("0 0", int(none.calls), PltCloseFile(device));
}

TEST(Volumes, PartitionAndDiskOfEveryFormOfName) {
    Simulation sim(Storage());
    std::wstring guid = kGuid, bare = guid.substr(0, guid.size() - 1);
    for (const wchar_t* name : {L"S", L"s:", L"S:\\", L"S:x", guid.c_str(), bare.c_str(), L"N"}) {
        PLT_VOLINFO info;
        memset(&info, 0xCD, sizeof info);
        EXPECT_CALLS("0 1048576 1073741824 0", PltGetVolInfo(name, &info), info.StartingOffset,
                     info.PartitionLength, int64_t(info.Reserved));
        EXPECT_STREQ(info.PhysicalDisk,
                     name[0] == L'N' ? L"\\\\.\\PHYSICALDRIVE-1" : L"\\\\.\\PHYSICALDRIVE3");
    }
    PLT_VOLINFO info = {};
    EXPECT_CALLS("87 87 87 0", PltGetVolInfo(nullptr, &info), PltGetVolInfo(L"", &info),
                 PltGetVolInfo(L"S", nullptr), sim.openHandles());
    sim.machine().volumes[0].failing = {{0x560020, 1117}};
    EXPECT_CALLS("1117 0", PltGetVolInfo(L"S", &info), sim.openHandles());
    sim.machine().volumes[0].failing = {{0x70048, 21}};
    EXPECT_CALLS("21 0 1 1048576", PltGetVolInfo(L"S", &info), sim.openHandles(),
                 PltGetVolInfo(L"Q:", &info) != 0, int(info.StartingOffset));
}

TEST(ExtentMap, OffsetsLengthsLimitsAndEveryWayOut) {
    Simulation sim(Storage());
    ASSERT_TRUE(sim.active());
    PLT_FILE_EXTENT* extents = nullptr;
    uint32_t count = 0;
    PLT_RESOURCE_STATS before = zt::Snapshot();
    ASSERT_EQ(PltGetFileDiskOffsetInfo(L"S:\\data.bin", &extents, &count), 0u);
    EXPECT_MOVED(before, {.UntaggedAllocCount = 3, .FileCount = 2});
    ASSERT_EQ(count, 4u);
    // Cluster 100 of 4096-byte clusters on a partition at 1 MiB; a sparse
    // extent (Lcn -1); an offset cut to 48 bits.
    std::string got;
    for (uint32_t i = 0; i < count; ++i)
        got +=
            std::to_string(extents[i].DiskOffset) + " " + std::to_string(extents[i].Length) + " ";
    EXPECT_EQ(got, "1458176 4096 1077248 8192 1044480 4096 1048576 8192 ");
    EXPECT_STREQ(extents[3].PhysicalDisk, L"\\\\.\\PHYSICALDRIVE3");
    OpenCall o = sim.opens()[0];
    EXPECT_CALLS("2147483648 3 3 2684354688 0", o.access, o.share, o.disposition, o.flags,
                 PltFree((void**)&extents, 0));
    // The retrieval buffer, the volume name's working copy and the array.
    EXPECT_EQ(zt::SweepAllocationFailures([&](int nth) {
                  zt::HeapFailure fail(nth);
                  PLT_STATUS status = PltGetFileDiskOffsetInfo(L"S:\\data.bin", &extents, &count);
                  EXPECT_EQ(status, fail.failed() ? 8u : 0u) << nth;
                  if (status == 0) PltFree((void**)&extents, 0);
                  return !fail.failed();
              }),
              3);
    // Each way out closes what it opened; only a success writes the outputs.
    auto attempt = [&](const std::wstring& path) {
        count = 0, extents = nullptr;
        PLT_STATUS status = PltGetFileDiskOffsetInfo(path.c_str(), &extents, &count);
        if (extents != nullptr) PltFree((void**)&extents, 0);
        return zt::Joined({status, count, sim.openHandles()}) + ";";
    };
    EXPECT_EQ(attempt(L"S:\\lies.bin") + attempt(L"S:\\many.bin") + attempt(L"S:\\more.bin") +
                  attempt(io::Tmp(L"none.bin")),
              "0 2 0;0 4097 0;234 0 0;2 0 0;")
        << "a claimed count past the answer; 4097 extents fit, 4098 do not";
    EXPECT_CALLS("1 0",
                 PltGetFileDiskOffsetInfo(L"\\\\server\\share\\f.bin", &extents, &count) != 0,
                 sim.opens().back().path != L"\\\\?\\\\:")
        << "a UNC path fails at its volume";
    sim.machine().volumes[0].failing = {{0x70048, 1117}};
    EXPECT_EQ(attempt(L"S:\\data.bin"), "1117 0 0;");
    sim.machine().volumes[0].failing = {};
    ZT_FAIL_IMPORT(GetDiskFreeSpaceW, ERROR_NOT_READY);
    EXPECT_CALLS("21 87 87 87", PltGetFileDiskOffsetInfo(L"S:\\data.bin", &extents, &count),
                 PltGetFileDiskOffsetInfo(nullptr, &extents, &count),
                 PltGetFileDiskOffsetInfo(L"S:\\data.bin", nullptr, &count),
                 PltGetFileDiskOffsetInfo(L"S:\\data.bin", &extents, nullptr));
}

}  // namespace
