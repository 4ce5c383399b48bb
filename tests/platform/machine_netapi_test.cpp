// Network management of a recorded machine: batches, resume handles, statuses, buffers.
#include <numeric>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "platform/recorded/machine_netapi.h"
#include "platform/recorded/record_error.h"
#include "platform/recorded/recorded_machine.h"

namespace {

using namespace platform;
using recorded::RecordedMachine;

std::shared_ptr<RecordedMachine> WithNet(const std::string& net) {
  return RecordedMachine::FromFiles({{"machine.json", "{\"net\": " + net + "}"}});
}

const char* kFiveUsers = R"({"users": {"failAfterBatches": 3, "failStatus": 2221, "records": [
    {"name": "a", "fullName": "Anna", "userId": 1000, "lastLogon": 1279211400,
     "logonHours": [0, 0, 255, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 255]},
    {"name": "b"}, {"name": "c"}, {"name": "d"}, {"name": "e"}]}})";

// Batches as the collector asks for them (100 bytes preferred holds one record at most),
// in record order, until the recorded failure or the end.
TEST(MachineNetApi, BatchSizesResumeHandlesAndStatuses) {
  struct Case {
    std::string users;
    DWORD preferred;
    std::vector<DWORD> batches;
    NET_API_STATUS last;
  };
  const std::string records = R"("records": [{"name": "a"}, {"name": "b"}, {"name": "c"}])";
  const Case cases[] = {
      {"{\"users\": {" + records + "}}", 100, {1, 1, 1}, NERR_Success},
      {"{\"users\": {" + records + "}}", MAX_PREFERRED_LENGTH, {3}, NERR_Success},
      {"{\"users\": {\"batchSize\": 2, " + records + "}}", 100, {2, 1}, NERR_Success},
      {R"({"users": {"records": []}})", 100, {0}, NERR_Success},
      {kFiveUsers, 100, {1, 1, 1, 0}, 2221},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.users);
    auto m = WithNet(c.users);
    DWORD resume = 0;
    std::vector<DWORD> batches;
    std::string names;
    NET_API_STATUS status;
    do {
      BYTE* buffer = nullptr;
      DWORD read = 0, total = 0;
      status = m->net().NetUserEnum(nullptr, 3, 0, &buffer, c.preferred, &read, &total, &resume);
      batches.push_back(read);
      auto* users = reinterpret_cast<USER_INFO_3*>(buffer);
      for (DWORD i = 0; i < read; ++i) names += static_cast<char>(users[i].usri3_name[0]);
      EXPECT_EQ(m->net().NetApiBufferFree(buffer), NERR_Success);
    } while (status == ERROR_MORE_DATA && batches.size() < 10);
    EXPECT_EQ(status, c.last);
    EXPECT_EQ(batches, c.batches);
    const DWORD read = std::accumulate(c.batches.begin(), c.batches.end(), DWORD{0});
    EXPECT_EQ(names, std::string("abcde").substr(0, read));
    EXPECT_EQ(m->recordedNet().outstandingBuffers(), 0u);
    if (status == NERR_Success) {
      EXPECT_EQ(resume, 0u);
    }
  }
}

TEST(MachineNetApi, RecordsCarryTheirFieldsInOneBuffer) {
  auto m = WithNet(kFiveUsers);
  BYTE* buffer = nullptr;
  DWORD read = 0, total = 0, resume = 0;
  ASSERT_EQ(m->net().NetUserEnum(nullptr, 3, 0, &buffer, 100, &read, &total, &resume),
            static_cast<NET_API_STATUS>(ERROR_MORE_DATA));
  ASSERT_EQ(read, 1u);
  EXPECT_EQ(total, 5u);
  EXPECT_EQ(resume, 1u);
  auto* user = reinterpret_cast<USER_INFO_3*>(buffer);
  EXPECT_EQ(std::u16string(user->usri3_full_name), u"Anna");
  EXPECT_EQ(std::u16string(user->usri3_comment), u"");
  EXPECT_EQ(user->usri3_user_id, 1000u);
  EXPECT_EQ(user->usri3_last_logon, 1279211400u);
  EXPECT_EQ(user->usri3_acct_expires, 0xFFFFFFFFu);
  EXPECT_EQ(user->usri3_logon_hours[2], 255);
  // Strings live in the same allocation, after the record, and are aligned for UTF-16.
  auto inside = [&](const void* p) {
    return p >= buffer + sizeof(USER_INFO_3) && p < buffer + 4096;
  };
  EXPECT_TRUE(inside(user->usri3_name));
  EXPECT_TRUE(inside(user->usri3_profile));
  EXPECT_EQ(reinterpret_cast<std::uintptr_t>(user->usri3_logon_server) % 2, 0u);
  EXPECT_EQ(m->net().NetApiBufferFree(buffer), NERR_Success);
  EXPECT_EQ(m->net().NetApiBufferFree(buffer),
            static_cast<NET_API_STATUS>(ERROR_INVALID_PARAMETER));
}

// Logon hours are Windows' 21 bytes or a null pointer, and every pointer of a record lies
// inside the buffer whose size NetApiBufferSize answers: readers check against it.
TEST(MachineNetApi, LogonHoursAreTwentyOneBytesInsideTheBuffer) {
  struct Case {
    std::string hours;
    size_t handedOut;  // bytes at usri3_logon_hours; 0 for null; npos: refused at load
  };
  auto bytes = [](size_t n) {
    std::string list;
    for (size_t i = 0; i < n; ++i) list += (i ? "," : "") + std::to_string(i);
    return "[" + list + "]";
  };
  const Case cases[] = {{"[]", 0},
                        {bytes(21), 21},
                        {bytes(1), std::string::npos},
                        {bytes(20), std::string::npos},
                        {bytes(22), std::string::npos}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.hours);
    const std::string users = R"({"users": {"records": [{"name": "a", "comment": "long enough",
                                  "logonHours": )" +
                              c.hours + "}]}}";
    if (c.handedOut == std::string::npos) {
      try {
        WithNet(users);
        ADD_FAILURE() << "accepted";
      } catch (const RecordError& e) {
        EXPECT_NE(std::string(e.what()).find("logonHours: expected 21 bytes"), std::string::npos)
            << e.what();
      }
      continue;
    }
    auto m = WithNet(users);
    BYTE* buffer = nullptr;
    DWORD read = 0, total = 0, resume = 0, size = 0;
    ASSERT_EQ(
        m->net().NetUserEnum(nullptr, 3, 0, &buffer, MAX_PREFERRED_LENGTH, &read, &total, &resume),
        NERR_Success);
    ASSERT_EQ(m->net().NetApiBufferSize(buffer, &size), NERR_Success);
    const auto* user = reinterpret_cast<USER_INFO_3*>(buffer);
    if (c.handedOut == 0) {
      EXPECT_EQ(user->usri3_logon_hours, nullptr);
    } else {
      EXPECT_GE(user->usri3_logon_hours, buffer + sizeof(USER_INFO_3));
      EXPECT_LE(user->usri3_logon_hours + c.handedOut, buffer + size);
      EXPECT_EQ(user->usri3_logon_hours[20], 20);
    }
    const WCHAR* last = user->usri3_home_dir_drive;  // the last string of the record
    EXPECT_LE(reinterpret_cast<const BYTE*>(last + 1), buffer + size);
    EXPECT_EQ(m->net().NetApiBufferFree(buffer), NERR_Success);
    EXPECT_EQ(m->net().NetApiBufferSize(buffer, &size),
              static_cast<NET_API_STATUS>(ERROR_INVALID_PARAMETER));
  }
}

TEST(MachineNetApi, LevelsAndLoggedOnUsers) {
  auto m = WithNet(R"({"loggedOn": {"records": [
      {"username": "Administrator", "logonDomain": "XPBOX", "logonServer": "XPBOX"},
      {"username": "Administrator", "logonDomain": "XPBOX", "logonServer": "OTHER"}]}})");
  NetApi& net = m->net();
  BYTE* buffer = nullptr;
  DWORD read = 0, total = 0, resume = 0;
  EXPECT_EQ(net.NetUserEnum(nullptr, 2, 0, &buffer, 100, &read, &total, &resume), 124u);
  EXPECT_EQ(net.NetWkstaUserEnum(nullptr, 0, &buffer, MAX_PREFERRED_LENGTH, &read, &total, &resume),
            124u);
  ASSERT_EQ(net.NetWkstaUserEnum(nullptr, 1, &buffer, MAX_PREFERRED_LENGTH, &read, &total, &resume),
            NERR_Success);
  ASSERT_EQ(read, 2u);
  auto* users = reinterpret_cast<WKSTA_USER_INFO_1*>(buffer);
  EXPECT_EQ(std::u16string(users[1].wkui1_logon_server), u"OTHER");
  EXPECT_EQ(std::u16string(users[0].wkui1_oth_domains), u"");
  net.NetApiBufferFree(buffer);
  // Not recorded: the call fails rather than reporting nobody.
  EXPECT_NE(net.NetUserEnum(nullptr, 3, 0, &buffer, 100, &read, &total, &resume), NERR_Success);
  EXPECT_EQ(buffer, nullptr);
}

TEST(MachineNetApi, UserNameReportsTheSizeNeeded) {
  auto m = WithNet(R"({"userName": "Administrator"})");
  NetApi& net = m->net();
  DWORD size = 0;
  EXPECT_FALSE(net.GetUserNameA(nullptr, &size));
  EXPECT_EQ(size, 14u);
  EXPECT_EQ(m->system().GetLastError(), static_cast<DWORD>(ERROR_INSUFFICIENT_BUFFER));
  std::string buffer(size, '\0');
  EXPECT_TRUE(net.GetUserNameA(buffer.data(), &size));
  EXPECT_EQ(size, 14u);
  EXPECT_STREQ(buffer.c_str(), "Administrator");
}

}  // namespace
