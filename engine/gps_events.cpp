#include "engine/gps_events.h"

int CHANGE_POWER_STATE_eventfd = -1;
int CHANGE_LOGGING_STATE_eventfd = -1;
int EXTERNAL_COMMAND_eventfd = -1;
int CHANGE_ASSISTANCE_MODE_eventfd = -1;
int CHANGE_FORWARD_DEVICE_eventfd = -1;
int CHANGE_POWER_PARAMETER_eventfd = -1;
int STOP_ASSISTANCE_eventfd = -1;
int RELOAD_ASSISTANCE_eventfd = -1;
int antOffPolarityRequestValue_eventfd = -1;
int antOffPolarityAnswer_eventfd = -1;
int antOffPolaritySetValue_eventfd = -1;
int fixUpdatePeriodRequestValue_eventfd = -1;
int fixUpdatePeriodAnswer_eventfd = -1;
int fixUpdatePeriodSetValue_eventfd = -1;
int CHANGE_MODULE_DEVICE_eventfd = -1;
