// What a host's first program does: a value tree out and back, a client on a context of its own, the version; and that
// the two agree about types, of exceptions and of what a host keeps in the library.

#include <QELNetworkKit/QELNetworkKit.h>

#include <cstdio>

int main() {
  using qelnk::Value;
  const Value tree = Value::map({{"answer", 42}, {"list", Value::list({true, nullptr, "text"})}});
  const auto back = qelnk::mp_dict(qelnk::mp_messagePack(tree).span());
  if (!back || *back != tree) return 1;

  const auto client = QELNKClient::create(QELNKContext::contextWithBackgroundQueue());
  client->connectToHost("localhost", 9, nullptr);
  client->disconnect();
  try {
    qelnk::Process::launch("/no/such/program", {});
    return 1;
  } catch (const qelnk::ProcessError &) {
  }
  const auto stream = QELNKLegacyStream::create(QELNKLegacyStream::defaultPlayoutOptions());
  stream->setContext(std::string("a host's own"));
  if (std::any_cast<std::string>(stream->context()) != "a host's own") return 1;

  std::printf("%s: %s\n", QELNetworkKitVersionString, back->description().c_str());
  return QELNetworkKitVersionNumber >= 1 ? 0 : 1;
}
