// With a print server of the test's own, which leaves what it gets in its folder.
#include "qmutils_print/CPrinterDC.h"

#include <cups/cups.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>

#include "qmutils/app/QMPrintTextC.h"
#include "qmutils/platform/error.h"
#include "qmutils_print/PrintQueue.h"
#include "tests/print/Document.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TempFolder.h"

namespace {

constexpr const char* kServer = "/usr/sbin/cupsd";

class Server {
 public:
  Server() {
    for (const char* name : {"root", "root/ppd", "spool", "tmp", "cache", "state", "log"}) {
      std::filesystem::create_directory(folder_.file(name));
    }
    const std::string anyone = "Order allow,deny\nAllow all\n";
    qmtest::writeFile(
        folder_.file("root/cupsd.conf"),
        "Listen " + socket() + "\nBrowsing Off\nDefaultAuthType None\n<Location />\n" + anyone +
            "</Location>\n<Policy default>\n<Limit All>\n" + anyone + "</Limit>\n</Policy>\n");
    qmtest::writeFile(folder_.file("root/files.conf"),
                      "FileDevice Yes\nServerRoot " + folder_.file("root") + "\nRequestRoot " +
                          folder_.file("spool") + "\nTempDir " + folder_.file("tmp") +
                          "\nCacheDir " + folder_.file("cache") + "\nStateDir " +
                          folder_.file("state") + "\nErrorLog " + folder_.file("log/error") +
                          "\nAccessLog " + folder_.file("log/access") + "\nPageLog " +
                          folder_.file("log/page") + "\n");
    cupsSetServer(socket().c_str());
    setenv("CUPS_SERVER", socket().c_str(), 1);  // of the commands
    pid_ = fork();
    if (pid_ == 0) {
      execl(kServer, kServer, "-f", "-c", folder_.file("root/cupsd.conf").c_str(), "-s",
            folder_.file("root/files.conf").c_str(), nullptr);
      std::_Exit(127);
    }
  }
  ~Server() {
    stop();
    cupsSetServer(nullptr);
    unsetenv("CUPS_SERVER");
  }
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

  std::string socket() const { return folder_.file("socket"); }
  // Of the first job, which waits as the printer is stopped. The ticket is written at the end.
  std::string document() const { return folder_.file("spool/d00001-001"); }
  std::string ticket() const { return qmtest::readFile(folder_.file("spool/c00001")); }

  void stop() {
    if (pid_ <= 0) return;
    kill(pid_, SIGTERM);
    waitpid(pid_, nullptr, 0);
    pid_ = -1;
  }

  /// False when the server does not come up.
  bool addPrinter(const std::string& name) const {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (std::chrono::steady_clock::now() < end) {
      if (std::system(("lpadmin -p " + name +
                       " -E -v file:///dev/null -m raw 2>/dev/null && "
                       "cupsdisable " +
                       name)
                          .c_str()) == 0) {
        return true;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return false;
  }

 private:
  const qmtest::TempFolder folder_;
  pid_t pid_ = -1;
};

TEST(CPrinterDC, HandsADocumentToAPrintQueue) {
  ASSERT_EQ(access(kServer, X_OK), 0) << "scripts/setup.sh test installs the print server";
  Server server;
  ASSERT_TRUE(server.addPrinter("Plates"));
  qm::PageSetup setup;
  setup.paper = *qm::findPaper("A5");
  CPrinterDC dc("Plates", setup);
  EXPECT_GT(dc.StartDoc("aborted") + dc.StartPage(), 1);
  EXPECT_GT(dc.AbortDoc(), 0);
  ASSERT_EQ(QMPrintTextC().PrintText2(
                "to the printer", &dc,
                ("/a/long/path\t" + std::string(300, '/') + "The job").c_str(), "t"),
            QMErrors::NoError);
  const qmtest::Document document(server.document());
  EXPECT_EQ(document.info("Pages"), "1");
  EXPECT_EQ(document.words().at(3).text, "printer");
  EXPECT_NE(qmtest::outputOf("lpstat -W not-completed -o").find("Plates-1 "), std::string::npos);

  qmtest::LogCapture log;
  for (const char* unknown : {"Nobody", "", static_cast<const char*>(nullptr)}) {
    CPrinterDC nowhere(unknown);
    EXPECT_EQ(QMPrintTextC().PrintText2("x", &nowhere, "", ""),
              QMErrors::fromOsError(ERROR_INVALID_PRINTER_NAME));
  }
  EXPECT_TRUE(log.contains(" ERROR: CPrinterDC::EndDoc(): printer Nobody: "));

  server.stop();
  EXPECT_NE(server.ticket().find("The job"), std::string::npos);
  EXPECT_NE(server.ticket().find("iso_a5_148x210mm"), std::string::npos);
}

TEST(CPrinterDC, TellsThatNoServerAnswers) {
  const qmtest::TempFolder folder;
  cupsSetServer(folder.file("none").c_str());
  CPrinterDC dc("Plates");
  EXPECT_EQ(QMPrintTextC().PrintText2("x", &dc, "", ""),
            QMErrors::fromOsError(RPC_S_SERVER_UNAVAILABLE));

  // One that takes the connection and never says a word.
  const int silent = socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const std::string name = folder.file("silent");
  name.copy(address.sun_path, sizeof address.sun_path - 1);
  ASSERT_EQ(bind(silent, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  ASSERT_EQ(listen(silent, 8), 0);
  cupsSetServer(name.c_str());
  constexpr unsigned kPatienceMs = 1000;
  qm::PrintQueue queue("Plates", {}, kPatienceMs);
  EXPECT_TRUE(queue.Open("x") && queue.Write("y", 1));
  EXPECT_EQ(queue.Close(), 0);
  EXPECT_EQ(qm::platform::lastError(), RPC_S_SERVER_UNAVAILABLE);
  close(silent);
  cupsSetServer(nullptr);
}

}  // namespace
