#include <QELNetworkKit/QELNKKORVALConstants.h>

const char *const QELNKKORVALCommand = "command";
const char *const QELNKKORVALMessageID = "messageID";
const char *const QELNKKORVALTimestamp = "timestamp";
const char *const QELNKKORVALData = "data";
const char *const QELNKKORVALID = "id";
const char *const QELNKKORVALName = "name";
const char *const QELNKKORVALFile = "file";
const char *const QELNKKORVALUnit = "unit";
const char *const QELNKKORVALValue = "value";
const char *const QELNKKORVALStatus = "status";
const char *const QELNKKORVALExecute = "execute";
const char *const QELNKKORVALPortType = "portType";
const char *const QELNKKORVALPortValueType = "portValueType";

const char *const QELNKOrlinDaemonMaxHeapSize = "maxHeapSize";
const char *const QELNKOrlinDaemonWebSocketPort = "webSocket";
const char *const QELNKOrlinDaemonSyncRequests = "syncRequests";
