/*
 * The methods of a daemon that is newer than what asks it: one that all know, and one that nobody else has.
 */
#if !defined(TARN_METHOD) || !defined(TARN_METHOD_NO_REPLY)
#error "tests/host/newer_methods.h: define TARN_METHOD and TARN_METHOD_NO_REPLY before including the list"
#endif

TARN_METHOD(PidIsOnline, PidIsOnlineInput, PidIsOnlineOuput)
TARN_METHOD(GetFanInfo, FanInput, FanInfo)

#undef TARN_METHOD
#undef TARN_METHOD_NO_REPLY
