// The engine thread's event channels (non-blocking eventfds). Engine start-up
// creates them; until then each holds -1 and signalling it does nothing.
#pragma once

extern int CHANGE_POWER_STATE_eventfd;
extern int CHANGE_LOGGING_STATE_eventfd;
extern int EXTERNAL_COMMAND_eventfd;
extern int CHANGE_ASSISTANCE_MODE_eventfd;
extern int CHANGE_FORWARD_DEVICE_eventfd;
extern int CHANGE_POWER_PARAMETER_eventfd;
extern int STOP_ASSISTANCE_eventfd;
extern int RELOAD_ASSISTANCE_eventfd;
extern int antOffPolarityRequestValue_eventfd;
extern int antOffPolarityAnswer_eventfd;
extern int antOffPolaritySetValue_eventfd;
extern int fixUpdatePeriodRequestValue_eventfd;
extern int fixUpdatePeriodAnswer_eventfd;
extern int fixUpdatePeriodSetValue_eventfd;
extern int CHANGE_MODULE_DEVICE_eventfd;
