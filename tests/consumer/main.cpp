// What a host's first program does: a value tree out and back, a client on a context of its own, the version.

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
  std::printf("%s: %s\n", QELNetworkKitVersionString, back->description().c_str());
  return QELNetworkKitVersionNumber >= 1 ? 0 : 1;
}
