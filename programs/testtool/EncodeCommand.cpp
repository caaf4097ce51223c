// The two commands for encoded files.
#include <cstdio>
#include <iostream>
#include <string>

#include "programs/testtool/Command.h"
#include "qmutils/data/QMGUIDEncryptC.h"

namespace programs {
namespace {

struct Request {
  std::string source;
  std::string destination;
  GUID key = QMGUIDEncryptC::GetPublicKey();
};

/// Empty, or what is wrong with the command line.
std::string parse(const Arguments& arguments, Request& request) {
  for (std::size_t i = 0; i < arguments.size(); ++i) {
    std::string key;
    if (arguments[i] == "--key") {
      GuidC guid;
      if (!takeValue(arguments, i, key) || guid.FromString(key.c_str()) != QMErrors::NoError) {
        return "--key wants a GUID";
      }
      request.key = guid;
    } else if (arguments[i] == "-o") {
      if (!takeValue(arguments, i, request.destination)) return "-o wants a file";
    } else if (request.source.empty() && !arguments[i].starts_with("-")) {
      request.source = arguments[i];
    } else {
      return "unknown argument '" + arguments[i] + "'";
    }
  }
  return request.source.empty() ? "no file given" : "";
}

int report(const Command& command, QMErrors::QMErrorT result) {
  if (result == QMErrors::NoError) return kSuccess;
  std::fprintf(stderr, "testtool %s: %s\n", command.name, QMErrToStr(result));
  return kFailure;
}

int encode(const Arguments& arguments) {
  Request request;
  const std::string complaint = parse(arguments, request);
  if (!complaint.empty()) return usageError(kEncodeCommand, complaint);
  if (request.destination.empty()) return usageError(kEncodeCommand, "no -o given");
  return report(kEncodeCommand, QMGUIDEncryptC::Encode(request.source.c_str(),
                                                       request.destination.c_str(), request.key));
}

int decode(const Arguments& arguments) {
  Request request;
  const std::string complaint = parse(arguments, request);
  if (!complaint.empty()) return usageError(kDecodeCommand, complaint);
  if (!request.destination.empty()) {
    return report(kDecodeCommand, QMGUIDEncryptC::Decode(request.source.c_str(),
                                                         request.destination.c_str(), request.key));
  }
  std::iostream out(std::cout.rdbuf());
  return report(kDecodeCommand, QMGUIDEncryptC::Decode(request.source.c_str(), out, request.key));
}

}  // namespace

const Command kEncodeCommand = {
    "encode", "encode a file with a GUID as the key",
    "usage: testtool encode FILE -o ENCODED [--key GUID]\n"
    "Makes a file that no text editor reads, as the suite's settings are. 'decode' turns it back.\n"
    "  -o ENCODED   where to write it\n"
    "  --key GUID   the key (the suite's public key)\n",
    encode};

const Command kDecodeCommand = {
    "decode", "decode a file and check that nobody has changed it",
    "usage: testtool decode ENCODED [-o FILE] [--key GUID]\n"
    "  -o FILE      where to write it (standard output)\n"
    "  --key GUID   the key (the suite's public key); another one gives other bytes\n"
    "The exit status tells whether the file was whole; what was decoded is written in any case.\n",
    decode};

}  // namespace programs
