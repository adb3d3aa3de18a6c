// The service framework in one include: services, bindings, links, the
// directory, the desktop environment's proxy and the client side.
#pragma once

#include "platform/service/bindable.h"
#include "platform/service/certificate.h"
#include "platform/service/client.h"
#include "platform/service/directory.h"
#include "platform/service/error.h"
#include "platform/service/frame.h"
#include "platform/service/inactivity_handler.h"
#include "platform/service/interfacable.h"
#include "platform/service/link.h"
#include "platform/service/message_type.h"
#include "platform/service/permissions.h"
#include "platform/service/service.h"
