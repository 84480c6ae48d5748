/* The methods of TarnSysdiagTarndAgent in the order of their interface indices, which start at 1. */
#if !defined(TARN_METHOD) || !defined(TARN_METHOD_NO_REPLY)
#error "define TARN_METHOD(Method, Request, Response) and TARN_METHOD_NO_REPLY(Method, Request) before including this"
#endif

TARN_METHOD(AgentRegInfo, AgentRegInfoInput, AgentRegInfoResult)
TARN_METHOD(TarnAppSubscribe, AppSubscribeInput, Result)

#undef TARN_METHOD
#undef TARN_METHOD_NO_REPLY
