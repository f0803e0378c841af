#pragma once

/// Everything the library offers. cmp.h and Version.h can be included from C as well.

#include <QELNetworkKit/Clock.h>
#include <QELNetworkKit/Error.h>
#include <QELNetworkKit/Export.h>
#include <QELNetworkKit/JSON.h>
#include <QELNetworkKit/Log.h>
#include <QELNetworkKit/MPMessagePack.h>
#include <QELNetworkKit/NetService.h>
#include <QELNetworkKit/PQODictionary.h>
#include <QELNetworkKit/Process.h>
#include <QELNetworkKit/QELNKClient.h>
#include <QELNetworkKit/QELNKContext.h>
#include <QELNetworkKit/QELNKKORVALClient.h>
#include <QELNetworkKit/QELNKKORVALConstants.h>
#include <QELNetworkKit/QELNKKORVALDaemonClient.h>
#include <QELNetworkKit/QELNKMessage.h>
#include <QELNetworkKit/QELNKMonitor.h>
#include <QELNetworkKit/QELNKOrlinDaemon.h>
#include <QELNetworkKit/QELNKOrlinDaemonSpawner.h>
#include <QELNetworkKit/QELNKOrlinPort.h>
#include <QELNetworkKit/QELNKOrlinWorkflow.h>
#include <QELNetworkKit/QELNKPublisher.h>
#include <QELNetworkKit/QELNKServer.h>
#include <QELNetworkKit/QELNKSocket.h>
#include <QELNetworkKit/QELNKSubscriber.h>
#include <QELNetworkKit/Queue.h>
#include <QELNetworkKit/RunLoop.h>
#include <QELNetworkKit/UserSettings.h>
#include <QELNetworkKit/Value.h>
#include <QELNetworkKit/Version.h>
#include <QELNetworkKit/XMLDocument.h>
#include <QELNetworkKit/ZMQContext.h>
#include <QELNetworkKit/ZMQException.h>
#include <QELNetworkKit/ZMQSocket.h>
#include <QELNetworkKit/cmp.h>
