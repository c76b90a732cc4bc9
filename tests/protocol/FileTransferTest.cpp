// #DOWNLOAD and #UPLOAD through real clients against the whole server in process: byte-exact
// round trips (also two clients at once), hostile paths that must neither read nor touch
// anything outside the root, refused byte counts, and a client that vanishes mid-upload.
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "commands/InProcessServer.h"
#include "host/ConfinedPath.h"

namespace {

using namespace laser_test;
namespace fs = std::filesystem;
using namespace std::chrono_literals;

std::string RandomBytes(size_t n, unsigned seed) {
  std::mt19937 gen(seed);
  std::string s(n, '\0');
  for (char& ch : s) ch = static_cast<char>(gen());
  return s;
}

std::string Frame(const std::string& body) {
  char digits[16];
  std::snprintf(digits, sizeof digits, "%010zu", body.size());
  return digits + body;
}

std::set<std::string> Listing(const std::string& dir) {
  std::set<std::string> names;
  for (const auto& e : fs::directory_iterator(dir)) names.insert(e.path().filename().string());
  return names;
}

bool HasUploadLeftovers(const std::string& dir) {
  for (const auto& name : Listing(dir))
    if (name.rfind(".vr480-upload-", 0) == 0) return true;
  return false;
}

class FileTransfer : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    Server = new CInProcessServer();
    Outside = new CTempDir();
  }
  static void TearDownTestSuite() {
    delete Server;
    delete Outside;
    Server = nullptr;
    Outside = nullptr;
  }
  void SetUp() override {
    ASSERT_TRUE(Server->Started());
    ASSERT_TRUE(Client.Connect(Server->Port()));
  }
  void TearDown() override { EXPECT_EQ(Client.Command("#IDN?").substr(0, 7), "Zorvane"); }

  // Where relative names land.
  static std::string Dir() { return Server->RootPath() + "/vr480"; }

  // The raw download reply: frame digits and body.
  static std::string Download(CTestClient& c, const std::string& path) {
    std::string digits, body;
    if (!c.Send("#DOWNLOAD " + path) || !c.ReadExact(10, &digits, 30s)) return "<no reply>";
    if (!c.ReadExact(std::stoull(digits), &body, 60s)) return digits + "<short body>";
    return digits + body;
  }
  static std::string Upload(CTestClient& c, const std::string& path, const std::string& bytes) {
    bool ok = c.Send("#UPLOAD " + std::to_string(bytes.size()) + " " + path) && c.SendRaw(bytes);
    std::string reply = c.ReadFrame(&ok, 60s);
    return ok ? reply : "<no reply>";
  }

  static inline CInProcessServer* Server = nullptr;
  static inline CTempDir* Outside = nullptr;  // beside the root: must stay untouched
  CTestClient Client;
};

TEST_F(FileTransfer, RoundTripsAreByteExactAlsoForTwoClientsAtOnce) {
  struct SRow {
    std::string Name;
    std::string Content;
  };
  const std::vector<SRow> rows = {
      {"empty.bin", ""}, {"forty.bin", RandomBytes(40000, 1)}, {"big.bin", RandomBytes(10 << 20, 2)}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.Name);
    EXPECT_EQ(Upload(Client, row.Name, row.Content), std::to_string(row.Content.size()) + " bytes received.\n");
    EXPECT_TRUE(ReadFile(Dir() + "/" + row.Name) == row.Content);
    EXPECT_TRUE(Download(Client, row.Name) == Frame(row.Content));
  }
  EXPECT_EQ(Download(Client, "empty.bin"), "0000000000");
  EXPECT_EQ(Download(Client, "forty.bin").substr(0, 10), "0000040000");
  EXPECT_TRUE(Download(Client, "/vr480/forty.bin") == Frame(rows[1].Content));
  EXPECT_FALSE(HasUploadLeftovers(Dir()));

  // One client downloads the big file while another uploads a different one and then
  // downloads the small one: each gets exactly its own bytes.
  // A reply that cannot be sent whole within the write budget closes the connection: both
  // clients allow 10 s, so that a machine too busy to read for a while fails no download.
  const auto patient = [](CTestClient& c) {
    c.Command("#SET_SOCKET_RECOVERY_ATTEMPTS 40000");
    c.Command("#SET_STREAMING_DATA 0");  // takes the new budget
  };
  patient(Client);
  const std::string other = RandomBytes(10 << 20, 3);
  std::string downloaded[2], uploadReply, small[20];
  std::thread second([&] {
    CTestClient c(Server->Port());
    patient(c);
    uploadReply = Upload(c, "other.bin", other);
    for (auto& s : small) s = Download(c, "forty.bin");
  });
  for (auto& d : downloaded) d = Download(Client, "big.bin");
  second.join();
  for (const auto& d : downloaded) EXPECT_TRUE(d == Frame(rows[2].Content));
  EXPECT_EQ(uploadReply, std::to_string(other.size()) + " bytes received.\n");
  EXPECT_TRUE(ReadFile(Dir() + "/other.bin") == other);
  for (const auto& s : small) EXPECT_TRUE(s == Frame(rows[1].Content));
}

TEST_F(FileTransfer, HostilePathsAndCountsAreRefusedAndNothingOutsideTheRootIsTouched) {
  const std::string sentinel = *Outside / "sentinel";
  WriteFile(sentinel, "secret");
  WriteFile(Dir() + "/inside.txt", "inside");
  const std::string outName = fs::path(Outside->Path()).filename().string();
  // Each would reach the sentinel if the text were handed to the kernel as it is.
  const std::string climb = fs::relative(sentinel, Dir()).string();  // "../../<outside>/sentinel"
  ASSERT_EQ(climb, "../../" + outName + "/sentinel");
  fs::create_symlink(sentinel, Dir() + "/link");
  fs::create_symlink(Outside->Path(), Dir() + "/outdir");
  fs::create_symlink("/dev/null", Dir() + "/devnull");
  fs::create_symlink(Dir() + "/inside.txt", Dir() + "/inlink");  // stays inside: allowed
  ASSERT_EQ(::mkfifo((Dir() + "/fifo").c_str(), 0600), 0);
  fs::create_directory(Dir() + "/subdir");
  const std::set<std::string> outsideBefore = Listing(Outside->Path());

  const std::vector<std::string> hostile = {climb,     "/../" + outName + "/sentinel", "a/../../../" + outName + "/sentinel",
                                            "link",    "outdir/sentinel",              "devnull",
                                            "fifo",    "subdir",                       "/vr480/../../" + outName + "/sentinel"};
  for (const auto& path : hostile) {
    SCOPED_TRACE(path);
    EXPECT_EQ(Download(Client, path), Frame("!File Not Found.\n"));
    // Refused before any byte is read, so the client sends none.
    EXPECT_EQ(Client.Command("#UPLOAD 6 " + path), "!Failed to open output file >>" + path + "<<.\n");
  }
  EXPECT_EQ(Client.Command("#UPLOAD 6 outdir/new.bin"), "!Failed to open output file >>outdir/new.bin<<.\n");
  EXPECT_EQ(Download(Client, "inlink"), Frame("inside"));

  for (const std::string count : {"-5", "abc", "12abc", "9000000000000000000"}) {
    SCOPED_TRACE(count);
    EXPECT_EQ(Client.Command("#UPLOAD " + count + " x.bin"), "!Failed to open output file >>x.bin<<.\n");
  }
  EXPECT_EQ(Client.Command("#UPLOAD 5").rfind("!Invalid command or argument: ", 0), 0u);
  EXPECT_EQ(Upload(Client, "zero.bin", ""), "0 bytes received.\n");

  EXPECT_EQ(ReadFile(sentinel), "secret");
  EXPECT_EQ(Listing(Outside->Path()), outsideBefore);
  EXPECT_TRUE(fs::is_symlink(Dir() + "/link"));
  EXPECT_TRUE(fs::is_fifo(Dir() + "/fifo"));
  EXPECT_FALSE(fs::exists(Dir() + "/x.bin"));
  EXPECT_TRUE(fs::exists(Dir() + "/zero.bin"));
  EXPECT_FALSE(HasUploadLeftovers(Dir()));
}

TEST_F(FileTransfer, AClientVanishingMidUploadLeavesNoFileAndTheServerGoesOn) {
  {
    CTestClient quitter(Server->Port());
    ASSERT_TRUE(quitter.Send("#UPLOAD 100000 half.bin"));
    ASSERT_TRUE(quitter.SendRaw(RandomBytes(5000, 4)));
    ASSERT_TRUE(WaitFor([&] { return HasUploadLeftovers(Dir()); }, 30s)) << "the upload never started";
    EXPECT_EQ(Client.Command("#IDN?").substr(0, 7), "Zorvane");  // served while the upload waits
  }
  EXPECT_TRUE(WaitFor([&] { return Server->S().Socket.GetNumClients() == 1 && !HasUploadLeftovers(Dir()); }, 30s));
  EXPECT_FALSE(fs::exists(Dir() + "/half.bin"));
}

// On the instrument paths are used as given, but a FIFO or a directory must still be refused
// at once rather than block the client's thread; a link is written through to its file.
TEST(FileTransferOnInstrument, NonRegularFilesAreRefusedWithoutBlocking) {
  ASSERT_TRUE(Host().IsInstrument());
  CTempDir dir;
  ASSERT_EQ(::mkfifo((dir / "fifo").c_str(), 0600), 0);
  WriteFile(dir / "file", "12345");
  fs::create_symlink(dir / "file", dir / "link");
  int64_t size = -1;
  EXPECT_EQ(OpenClientFileForReading(dir / "fifo", &size), -1);
  EXPECT_EQ(OpenClientFileForReading(dir.Path(), &size), -1);
  const int fd = OpenClientFileForReading(dir / "link", &size);
  EXPECT_GE(fd, 0);
  EXPECT_EQ(size, 5);
  if (fd >= 0) ::close(fd);

  std::string why;
  CUploadTarget fifo, link;
  EXPECT_FALSE(fifo.Open(dir / "fifo", 1, &why));
  ASSERT_TRUE(link.Open(dir / "link", 3, &why)) << why;
  EXPECT_TRUE(link.Write("abc", 3, &why) && link.Commit(&why)) << why;
  EXPECT_TRUE(fs::is_symlink(dir / "link"));
  EXPECT_EQ(ReadFile(dir / "file"), "abc");
}

}  // namespace
