#include "Hub/Database/SpecsDB.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "tests/support/http_server.h"
#include "tests/support/test_support.h"

using testsupport::fileExists;
using testsupport::HttpServer;
using testsupport::readFile;
using testsupport::stdoutOf;
using testsupport::TempDir;
using testsupport::writeFile;

// Identifiers of the form localhost:PORT[/path]: the https tries reach the
// plain HTTP test server and fail in the TLS handshake, the http try succeeds.
// Proxies from the environment must not take the traffic off the machine.
class SpecsDBTest : public testing::Test {
protected:
    void SetUp() override {
        setenv("no_proxy", "*", 1);
        setenv("NO_PROXY", "*", 1);
    }
    TempDir dir;
};

TEST_F(SpecsDBTest, DownloadsNumberDocumentsAndAppendIndexLines) {
    HttpServer server(HttpServer::Routes{{"/device.spec", "first"}, {"/second/device.spec", "second"}});
    ASSERT_TRUE(server.ok());
    SpecsDB db(dir.path());
    const std::string id = "localhost:" + std::to_string(server.port());

    std::string path;
    const std::string out = stdoutOf([&] { path = db.downloadSpecFile(id); });
    EXPECT_EQ(path, dir.path() + "/000000001.spec");
    EXPECT_EQ(readFile(path), "first");
    EXPECT_EQ(out, "Downloading https://" + id + "/device.spec ... Failed. Error data size=0\n"
                   "Downloading https://www." + id + "/device.spec ... Failed. Error data size=0\n"
                   "Downloading http://" + id + "/device.spec ... OK as file " + path + "\n");

    stdoutOf([&] { EXPECT_EQ(db.downloadSpecFile(id + "/second"), dir.path() + "/000000002.spec"); });
    EXPECT_EQ(readFile(dir.file("specs.idx")), id + "\t000000001\n" + id + "/second\t000000002\n");
    EXPECT_EQ(db.findSpecFile(id + "/second"), dir.path() + "/000000002.spec");
    EXPECT_FALSE(fileExists(dir.file("interfaces.idx"))) << "the kinds are indexed apart";
}

TEST_F(SpecsDBTest, EmptyBodiesFailAllFourTriesAndLeaveTheIndexAlone) {
    HttpServer server(HttpServer::Routes{}, HttpServer::EMPTY_BODY);
    ASSERT_TRUE(server.ok());
    SpecsDB db(dir.path());
    const std::string id = "localhost:" + std::to_string(server.port());
    std::string path;
    stdoutOf([&] { path = db.downloadSpecFile(id); });
    EXPECT_FALSE(fileExists(path));
    EXPECT_FALSE(fileExists(dir.file("specs.idx")));
    EXPECT_EQ(4u, server.connections().size());
}

TEST_F(SpecsDBTest, IndexFilesAreReadWordByWord) {
    const std::string idx = dir.file("specs.idx");
    EXPECT_EQ(maxIdxinIdxFile(idx), 0u) << "missing file";
    ASSERT_TRUE(writeFile(idx, "a\t7\nlonely\n\nb 000000012\nbad\tx1\na\t000000003\n"));
    EXPECT_EQ(maxIdxinIdxFile(idx), 12u);
    EXPECT_EQ(findIdxInIdxFile(idx, "a"), "7") << "first match, as written";
    EXPECT_EQ(findIdxInIdxFile(idx, "lonely"), "");
    EXPECT_EQ(SpecsDB(dir.path()).findSpecFile("a"), dir.path() + "/7.spec");
}

// A body above 1 MiB is refused at every address that sends one; the document
// then rests: a second lookup within 10 minutes says so in one line and
// connects nowhere.
TEST_F(SpecsDBTest, AnOversizedDocumentIsRefusedAndNotTriedAgainForTenMinutes) {
    HttpServer server(HttpServer::Routes{}, HttpServer::HUGE);
    ASSERT_TRUE(server.ok());
    SpecsDB db(dir.path());
    const std::string id = "localhost:" + std::to_string(server.port());
    std::string out = stdoutOf([&] { EXPECT_FALSE(fileExists(db.downloadSpecFile(id))); });
    EXPECT_NE(out.find("Downloading http://" + id + "/device.spec ... Failed. Document larger than 1048576 bytes refused\n"),
              std::string::npos) << out;
    EXPECT_FALSE(fileExists(dir.file("specs.idx")));

    const size_t connections = server.connections().size();
    out = stdoutOf([&] { EXPECT_EQ(db.interfaceString(id, "obj0"), ""); });
    EXPECT_EQ(out, "Downloading " + id + " skipped: it failed 0 s ago; not tried again within 600 s\n");
    EXPECT_EQ(connections, server.connections().size());
}
