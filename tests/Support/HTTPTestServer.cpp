#include "tests/Support/HTTPTestServer.h"

#include <stdexcept>

namespace testsupport {

namespace {
const char* const kServerScript = "tests/Platform/URLLoading/http_test_server.py";
}

void makeSelfSignedCertificate(const std::string& directory)
{
    const auto result = runProgram(
        "/usr/bin/openssl",
        {"req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes", "-days", "2",
         "-subj", "/CN=127.0.0.1", "-addext", "subjectAltName=IP:127.0.0.1,DNS:localhost", "-keyout",
         directory + "/key.pem", "-out", directory + "/cert.pem"},
        {{"PATH", "/usr/bin:/bin"}});
    if (result.exitStatus != 0) {
        throw std::runtime_error("openssl could not make a certificate: " + result.standardError);
    }
}

std::unique_ptr<LocalServer> startHTTPTestServer()
{
    return std::make_unique<LocalServer>(std::vector<std::string>{"python3", sourceFile(kServerScript)});
}

std::unique_ptr<LocalServer> startHTTPSTestServer(const TemporaryDirectory& directory)
{
    makeSelfSignedCertificate(directory.path());
    return std::make_unique<LocalServer>(std::vector<std::string>{
        "python3", sourceFile(kServerScript), directory.path() + "/cert.pem", directory.path() + "/key.pem"});
}

}  // namespace testsupport
