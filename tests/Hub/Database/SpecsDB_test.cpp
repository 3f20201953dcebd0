#include "Hub/Database/SpecsDB.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "tests/support/http_server.h"
#include "tests/support/test_support.h"

using testsupport::fileExists;
using testsupport::HttpServer;
using testsupport::readFile;
using testsupport::stdoutOf;
using testsupport::TempDir;
using testsupport::writeFile;

namespace {

const char* const SPEC_DOC =
    "<?xml version=\"1.0\"?>\n"
    "<Velto-spec><info><specs>acme/Lamp.1</specs></info>"
    "<interfaces><interface name=\"Light\" intf=\"acme/Velto/specs/std/Light.1\"/>"
    "<interface name=\"Lamp\"/></interfaces></Velto-spec>\n";

const char* const INTF_DOC =
    "<?xml version=\"1.0\"?>\n"
    "<Velto-interface name=\"Light.1\"><messages>"
    "<message name=\"On\" id=\"3\" type=\"direct\" security=\"2\"/>"
    "<message name=\"Off\" id=\"4\" type=\"direct\"/>"
    "<message name=\"State\" id=\"5\" type=\"notification\" security=\"3\"/>"
    "<message name=\"Odd\" id=\"6\" type=\"other\" security=\"9\"/>"
    "<message name=\"Wide\" id=\"-2\" type=\"notification\" security=\"1\"/>"
    "</messages></Velto-interface>\n";

// Identifiers of the form localhost:PORT[/path]: the https tries reach the
// plain HTTP test server and fail in the TLS handshake, the http try succeeds.
// Proxies from the environment must not take the traffic off the machine.
class SpecsDBTest : public testing::Test {
protected:
    void SetUp() override {
        setenv("no_proxy", "*", 1);
        setenv("NO_PROXY", "*", 1);
    }

    static std::string hostOf(const HttpServer& server) {
        return "localhost:" + std::to_string(server.port());
    }

    TempDir dir;
};

}  // namespace

TEST_F(SpecsDBTest, DownloadsNumberDocumentsAndAppendIndexLines) {
    HttpServer server(HttpServer::Routes{{"/device.spec", SPEC_DOC}, {"/second/device.spec", "second body"}});
    ASSERT_TRUE(server.ok());
    SpecsDB db(dir.path());
    const std::string id = hostOf(server);
    EXPECT_EQ(db.findSpecFile(id), "");

    std::string path;
    const std::string out = stdoutOf([&] { path = db.downloadSpecFile(id); });

    EXPECT_EQ(path, dir.path() + "/000000001.spec");
    EXPECT_EQ(readFile(path), SPEC_DOC);
    EXPECT_EQ(readFile(dir.file("specs.idx")), id + "\t000000001\n");
    EXPECT_EQ(db.findSpecFile(id), path);
    EXPECT_EQ(out, "Downloading https://" + id + "/device.spec ... Failed. Error data size=0\n"
                   "Downloading https://www." + id + "/device.spec ... Failed. Error data size=0\n"
                   "Downloading http://" + id + "/device.spec ... OK as file " + path + "\n");
    EXPECT_EQ(server.connections(),
              (std::vector<std::string>{"NOT-HTTP", "NOT-HTTP", "GET " + id + " /device.spec"}));

    const std::string second = id + "/second";
    EXPECT_EQ(db.downloadSpecFile(second), dir.path() + "/000000002.spec");
    EXPECT_EQ(readFile(dir.file("specs.idx")), id + "\t000000001\n" + second + "\t000000002\n");
    EXPECT_EQ(db.findSpecFile(second), dir.path() + "/000000002.spec");
    EXPECT_FALSE(fileExists(dir.file("interfaces.idx"))) << "the kinds are indexed apart";
}

TEST_F(SpecsDBTest, ShortIdentifierIsNeverDownloaded) {
    HttpServer server(HttpServer::Routes{});
    ASSERT_TRUE(server.ok());
    SpecsDB db(dir.path());
    EXPECT_EQ(db.downloadSpecFile("ab"), "");
    EXPECT_EQ(db.downloadIntfFile("ab"), "");
    EXPECT_EQ(db.interfaceString("ab", "Light"), "");
    EXPECT_FALSE(fileExists(dir.file("specs.idx")));
    EXPECT_TRUE(server.connections().empty());
}

TEST_F(SpecsDBTest, EmptyBodiesFailAllFourTriesAndLeaveTheIndexAlone) {
    HttpServer server(HttpServer::Routes{}, HttpServer::EMPTY_BODY);
    ASSERT_TRUE(server.ok());
    SpecsDB db(dir.path());
    const std::string id = hostOf(server);

    std::string path;
    stdoutOf([&] { path = db.downloadSpecFile(id); });

    EXPECT_EQ(path, dir.path() + "/000000001.spec");
    EXPECT_FALSE(fileExists(path));
    EXPECT_FALSE(fileExists(dir.file("specs.idx")));
    EXPECT_EQ(server.connections(),
              (std::vector<std::string>{"NOT-HTTP", "NOT-HTTP", "GET " + id + " /device.spec",
                                        "GET www." + id + " /device.spec"}));
    EXPECT_EQ(db.downloadSpecFile(id), path) << "a later attempt reuses the number";
    EXPECT_EQ(db.interfaceString(id, "Light"), "") << "no file to parse";
}

TEST_F(SpecsDBTest, IndexFilesAreReadWordByWord) {
    const std::string idx = dir.file("specs.idx");
    EXPECT_EQ(maxIdxinIdxFile(idx), 0u) << "missing file";
    EXPECT_EQ(findIdxInIdxFile(idx, "a"), "");

    ASSERT_TRUE(writeFile(idx, "a\t7\nlonely\n\nb 000000012\nbad\tx1\na\t000000003\nneg\t-5\n"));
    EXPECT_EQ(maxIdxinIdxFile(idx), 12u);
    EXPECT_EQ(findIdxInIdxFile(idx, "a"), "7") << "first match, as written";
    EXPECT_EQ(findIdxInIdxFile(idx, "lonely"), "");
    EXPECT_EQ(findIdxInIdxFile(idx, "A"), "");

    SpecsDB db(dir.path());
    EXPECT_EQ(db.findSpecFile("a"), dir.path() + "/7.spec");
    EXPECT_EQ(db.findIntfFile("a"), "");
}

TEST_F(SpecsDBTest, LoadRightsForInterfaceFromAServedDocument) {
    HttpServer server(HttpServer::Routes{{"/Velto/specs/std/Light.1", INTF_DOC}});
    ASSERT_TRUE(server.ok());
    ASSERT_TRUE(writeFile(dir.file("interfaces.idx"), "other.example/x\t41\n"));
    SpecsDB db(dir.path());
    const std::string intfId = hostOf(server) + "/Velto/specs/std/Light.1";

    std::map<unsigned short, unsigned char> two = {{3, 77}, {100, 5}};
    std::map<unsigned short, unsigned char> one;
    bool loaded = false;
    stdoutOf([&] { loaded = db.loadRightsForInterface(intfId, two, one); });
    ASSERT_TRUE(loaded);
    EXPECT_EQ(db.findIntfFile(intfId), dir.path() + "/000000042.intf");
    EXPECT_EQ(two, (std::map<unsigned short, unsigned char>{{3, 2}, {4, 1}, {100, 5}}));
    EXPECT_EQ(one, (std::map<unsigned short, unsigned char>{{5, 3}, {65534, 1}}));

    // Found in the index the second time: no new request.
    const size_t before = server.connections().size();
    std::map<unsigned short, unsigned char> again;
    EXPECT_TRUE(db.loadRightsForInterface(intfId, again, again));
    EXPECT_EQ(server.connections().size(), before);

    // A document that cannot be had leaves the maps untouched.
    std::map<unsigned short, unsigned char> untouched = {{1, 1}};
    stdoutOf([&] { EXPECT_FALSE(db.loadRightsForInterface(hostOf(server) + "/missing.1", untouched, untouched)); });
    EXPECT_EQ(untouched, (std::map<unsigned short, unsigned char>{{1, 1}}));
}

TEST_F(SpecsDBTest, InterfaceStringFromAServedSpecification) {
    HttpServer server(HttpServer::Routes{{"/device.spec", SPEC_DOC}, {"/broken/device.spec", "<Velto-spec><info>"}});
    ASSERT_TRUE(server.ok());
    SpecsDB db(dir.path());
    const std::string id = hostOf(server);

    stdoutOf([&] {
        EXPECT_EQ(db.interfaceString(id, "Light"), "acme/Velto/specs/std/Light.1");
        EXPECT_EQ(db.interfaceString(id, "Lamp"), "acme/Lamp.1/Lamp");
        EXPECT_EQ(db.interfaceString(id, "Nope"), "");
        EXPECT_EQ(db.interfaceString(id + "/broken", "Light"), "") << "unparsable document";
    });
    EXPECT_EQ(readFile(dir.file("specs.idx")), id + "\t000000001\n" + id + "/broken\t000000002\n");
}

TEST_F(SpecsDBTest, DownloadFileReportsAnUnwritableTarget) {
    HttpServer server(HttpServer::Routes{{"/doc", "body"}});
    ASSERT_TRUE(server.ok());
    const std::string url = "http://" + hostOf(server) + "/doc";
    const std::string target = dir.path() + "/no-such-dir/doc";

    EXPECT_EQ(stdoutOf([&] { EXPECT_FALSE(downloadFile(url, target)); }),
              "Downloading " + url + " ... Failed. Error opening target file " + target + "\n");

    stdoutOf([&] { EXPECT_FALSE(downloadFile("http://" + hostOf(server) + "/absent", dir.file("absent"))); });
    EXPECT_FALSE(fileExists(dir.file("absent")));
}

TEST(WriteMemoryCallbackTest, AppendsEveryByteAndReturnsTheCount) {
    std::vector<char> sink = {'x'};
    char data[] = {'a', 'b', 'c', 'd', 'e', 'f'};
    EXPECT_EQ(WriteMemoryCallback(data, 2, 3, &sink), 6u);
    EXPECT_EQ(std::string(sink.begin(), sink.end()), "xabcdef");
    EXPECT_EQ(WriteMemoryCallback(data, 1, 0, &sink), 0u);
    EXPECT_EQ(WriteMemoryCallback(data, 1, 2, nullptr), 0u);
    EXPECT_EQ(sink.size(), 7u);
}
