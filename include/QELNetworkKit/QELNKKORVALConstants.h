#ifndef QELNETWORKKIT_KORVALCONSTANTS_H
#define QELNETWORKKIT_KORVALCONSTANTS_H

#include <QELNetworkKit/Export.h>

QELNK_EXTERN_C_BEGIN

/* Keys of the daemon's command protocol. Zero-terminated constants, any thread. */
extern QELNK_EXPORT const char *const QELNKKORVALCommand;    ///< "command": every request, and pushes
extern QELNK_EXPORT const char *const QELNKKORVALMessageID;  ///< "messageID": every request and response
extern QELNK_EXPORT const char *const QELNKKORVALTimestamp;  ///< "timestamp": every request
extern QELNK_EXPORT const char *const QELNKKORVALData;       ///< "data": arguments and results
extern QELNK_EXPORT const char *const QELNKKORVALID;         ///< "id" of a workflow or port
extern QELNK_EXPORT const char *const QELNKKORVALName;       ///< "name" of a project, workflow or port
extern QELNK_EXPORT const char *const QELNKKORVALFile;       ///< "file" of a project
extern QELNK_EXPORT const char *const QELNKKORVALUnit;       ///< "unit": for hosts, not read or written here
extern QELNK_EXPORT const char *const QELNKKORVALValue;      ///< "value" of a port
extern QELNK_EXPORT const char *const QELNKKORVALStatus;     ///< "status": a project runs, a workflow executes
extern QELNK_EXPORT const char *const QELNKKORVALExecute;    ///< "execute": a workflow executes when its project runs
extern QELNK_EXPORT const char *const QELNKKORVALPortType;   ///< "portType": direction of a port
extern QELNK_EXPORT const char *const QELNKKORVALPortValueType;  ///< "portValueType": value type of a port

/* Keys of the properties of a daemon that is launched. */
extern QELNK_EXPORT const char *const QELNKOrlinDaemonMaxHeapSize;    ///< "maxHeapSize": integer, megabytes
extern QELNK_EXPORT const char *const QELNKOrlinDaemonWebSocketPort;  ///< "webSocket": integer, port
extern QELNK_EXPORT const char *const QELNKOrlinDaemonSyncRequests;   ///< "syncRequests": boolean

QELNK_EXTERN_C_END

#endif
