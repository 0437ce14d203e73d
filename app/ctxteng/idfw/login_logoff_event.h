#pragma once

namespace orlane::zem::context::idfw {
class LoginLogoffEvent;
}

namespace Ctxt {

struct LoginLogoffInfo;

/// Fills the manager's form of a logon.  What it has no form for is logged and left out.  False when an id of
/// the guest is not a uuid, and the event has 0 in its place: a guest's file may name it by anything of the
/// right length.
bool FillLoginLogoffEvent(const LoginLogoffInfo& info, orlane::zem::context::idfw::LoginLogoffEvent* event);

}  // namespace Ctxt
