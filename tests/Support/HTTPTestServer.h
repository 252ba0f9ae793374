// The URL loading tests' own HTTP server (tests/Platform/URLLoading/
// http_test_server.py) on 127.0.0.1, plain or over https with a self-signed
// certificate made for the occasion, which the system therefore does not
// trust. Each https server made this way has a key and certificate of its own.
//
//   testsupport::TemporaryDirectory directory;
//   const auto server = testsupport::startHTTPSTestServer(directory);
//   "https://127.0.0.1:" + std::to_string(server->port()) + "/echo"
#pragma once

#include "tests/Support/LocalServer.h"
#include "tests/Support/RunProgram.h"

#include <memory>
#include <string>

namespace testsupport {

// Writes cert.pem and key.pem for 127.0.0.1 and localhost into `directory`;
// throws when openssl fails.
void makeSelfSignedCertificate(const std::string& directory);

std::unique_ptr<LocalServer> startHTTPTestServer();
// Makes a certificate in `directory` and serves https with it.
std::unique_ptr<LocalServer> startHTTPSTestServer(const TemporaryDirectory& directory);

}  // namespace testsupport
