// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "model/error_policy.h"

#include <zookeeper/zookeeper.h>

namespace zr::halden::details {

ErrorAction ActionFor(int code) {
  switch (code) {
    case ZOK:
      return ErrorAction::Done;

    case ZNONODE:
      return ErrorAction::Absent;

    case ZNODEEXISTS:
    case ZBADVERSION:
    case ZNOTEMPTY:
      return ErrorAction::Conflict;

    case ZCONNECTIONLOSS:
    case ZOPERATIONTIMEOUT:  // also how the client ends requests of a lost connection
    case ZMARSHALLINGERROR:  // also what a request gets that races a close
    case ZINVALIDSTATE:
    case ZSESSIONEXPIRED:
    case ZSESSIONMOVED:
    case ZCLOSING:
    case ZNOTHING:
      return ErrorAction::AwaitSession;

    case ZTHROTTLEDOP:
    case ZSYSTEMERROR:
    case ZRUNTIMEINCONSISTENCY:
    case ZDATAINCONSISTENCY:
    case ZNEWCONFIGNOQUORUM:
    case ZRECONFIGINPROGRESS:
    case ZNOTREADONLY:
      return ErrorAction::Retry;

    case ZAPIERROR:
    case ZUNIMPLEMENTED:
    case ZBADARGUMENTS:
    case ZSSLCONNECTIONERROR:
    case ZNOAUTH:
    case ZNOCHILDRENFOREPHEMERALS:
    case ZINVALIDCALLBACK:
    case ZINVALIDACL:
    case ZAUTHFAILED:
    case ZEPHEMERALONLOCALSESSION:
    case ZNOWATCHER:
    case ZRECONFIGDISABLED:
    case ZSESSIONCLOSEDREQUIRESASLAUTH:
    default:  // a code of a newer server
      return ErrorAction::Report;
  }
}

}  // namespace zr::halden::details
