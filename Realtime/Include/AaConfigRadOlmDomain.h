/* Domain 1, "OLM": the runtime's own R&D parameters. Every named tag as index, name and default
 * (-1 for all bits set), in index order, as a list macro: TAG(index, name, default) is expanded once
 * per tag, so the runtime builds its table from it and a tool names the parameters without
 * linking the runtime. The domain has 235 tags; 149 and 153 to 234 have neither name nor default
 * (their default is 0).
 *
 *   #define OLM_TAG_NAME(index, name, defaultValue) name,
 *   static const char* const names[] = {AACONFIG_RAD_OLM_TAGS(OLM_TAG_NAME)};
 */
#ifndef OLM_AACONFIGRADOLMDOMAIN_H
#define OLM_AACONFIGRADOLMDOMAIN_H

#define AACONFIG_RAD_OLM_TAG_COUNT 235u

/* clang-format off */
#define AACONFIG_RAD_OLM_TAGS(TAG) \
  TAG(0, "AaSysCom", 0) \
  TAG(1, "AaSysLog", 0) \
  TAG(2, "AaSysTime", 0) \
  TAG(3, "AaMem", 0) \
  TAG(4, "AaPro", 0) \
  TAG(5, "AaSem", 0) \
  TAG(6, "AaStartup", 0) \
  TAG(7, "AaFile", 0) \
  TAG(8, "AaUdpcpGen", 0) \
  TAG(9, "AaUdpcpTx", 0) \
  TAG(10, "AaUdpcpRx", 0) \
  TAG(11, "AaMemAdapter", 0) \
  TAG(12, "AaSysComGw", 0) \
  TAG(13, "AaMemAdapterMasterEnable", 0) \
  TAG(14, "AaMemAdapterRtTrace", -1) \
  TAG(15, "AaMemAdapterRtObs", 1) \
  TAG(16, "AaMemAdapterRtTraceTmo", 0) \
  TAG(17, "AaMemAdapterRtObsTmo", 0) \
  TAG(18, "AaMemAdapterListenerDisable", 0) \
  TAG(19, "AaProdTest", 0) \
  TAG(20, "AaProdTestCBist", 0) \
  TAG(21, "AaProdTestEnable", 0) \
  TAG(22, "AaSysMb", 0) \
  TAG(23, "AaConfigRadSlave", 0) \
  TAG(24, "AaConfigRadMaster", 0) \
  TAG(25, "AaConfigRad", 0) \
  TAG(26, "AaConfigTag", 0) \
  TAG(27, "AaPostmortem", 0) \
  TAG(28, "AaTrbl", 0) \
  TAG(29, "AaError", 0) \
  TAG(30, "TechLogMasterEmu", 0) \
  TAG(31, "AaMemAdapterPoolLimitThold", 0) \
  TAG(32, "AaMemAdapterPoolLimitTmo", 0) \
  TAG(33, "AaMemAdapterPoolStatsTmo", 0) \
  TAG(34, "AaMemAdapterPoolTraceTmo", 0) \
  TAG(35, "AaTrace", 0) \
  TAG(36, "AaTestPort", 0) \
  TAG(37, "AaSysMbStoragePrinterEnable", 0) \
  TAG(38, "AaSchedTrace", 0) \
  TAG(39, "AaProcTrace", 0) \
  TAG(40, "AaMsgTrace", 0) \
  TAG(41, "AaHTTP", 0) \
  TAG(42, "AaTraceSwConfUsed", 0) \
  TAG(43, "AaTraceSwConfId1", 0) \
  TAG(44, "AaTraceSwConfId2", 0) \
  TAG(45, "AaTraceSwConfId3", 0) \
  TAG(46, "AaTraceSwConfId4", 0) \
  TAG(47, "AaTraceSwConfRange1", 0) \
  TAG(48, "AaTraceSwConfRange2", 0) \
  TAG(49, "AaSysComUser", 0) \
  TAG(50, "AaSysComLink", 0) \
  TAG(51, "AaSysComHop", 0) \
  TAG(52, "AaSysComGwRoute", 0) \
  TAG(53, "AaSysComRtm", 0) \
  TAG(54, "PoolAnalyzerDisable", 0) \
  TAG(55, "AaSNTP", 0) \
  TAG(56, "AaDHCP", 0) \
  TAG(57, "AaSysComControl", 0) \
  TAG(58, "AaSysComEndian4Divisible", 0) \
  TAG(59, "AaSysTimeBcn", 0) \
  TAG(60, "HeapAnalyzerDisable", 0) \
  TAG(61, "AaNet", 0) \
  TAG(62, "AaSysComKernelErrorDisable", 0) \
  TAG(63, "AaSysLogInputLevel", 2) \
  TAG(64, "AaSysLogOutputLevel", 2) \
  TAG(65, "AaSysLogOutputMode", -1) \
  TAG(66, "AaSysLogUdpAddress", 0) \
  TAG(67, "AaSysLogUdpPort", -1) \
  TAG(68, "AaSysLogSicAddress", 0) \
  TAG(69, "AaSysLogStartupLogSize", -1) \
  TAG(70, "AaSysLogSnapshotFreezeDisable", 0) \
  TAG(71, "AaProSched", 0) \
  TAG(72, "AaProSchedControl", 0) \
  TAG(73, "AaFileSicFtp", 0) \
  TAG(74, "AaProLinuxRealtimeScheduling", 0) \
  TAG(75, "PrintAaLteTime", 0) \
  TAG(76, "AaSysComRtmDisable", 0) \
  TAG(77, "AaSysComRtmTimeout", 0) \
  TAG(78, "AaSysComRtmResendings", 0) \
  TAG(79, "ERadOlm_PrintAaRTOS", 0) \
  TAG(80, "AaProDisableSafetyMarginFeature", 0) \
  TAG(81, "AaProVirtStacksizeOffset", 0) \
  TAG(82, "AaShell", 0) \
  TAG(83, "AaGpuXml", 0) \
  TAG(84, "AaMemAdapterValidateAllocMaxBlockCount", 5000) \
  TAG(85, "AaFileDefaultVolume", 1) \
  TAG(86, "AaFileTftp", 0) \
  TAG(87, "AaSysComMsgRerouteEnable", 0) \
  TAG(88, "AaMemAdapterHeapTracingDelay", 0) \
  TAG(89, "AaMemAdapterHeapTracingEnable", -1) \
  TAG(90, "AaTraceTracingMode", 0) \
  TAG(91, "ERadOlm_AaUDPCPTxMessageResendTimeout", 0) \
  TAG(92, "ERadOlm_AaUDPCPTxMessageResendRetries", 0) \
  TAG(93, "ERadOlm_AaUDPCPAckMode", 0) \
  TAG(94, "ERadOlm_AaUDPCPCrcInUse", 0) \
  TAG(95, "AaMemAdapterHeapTracingMode", -1) \
  TAG(96, "AaMemAdapterQuarantineListLength", 0) \
  TAG(97, "AaSysComNotifList", 0) \
  TAG(98, "AaSysComCommErrNotifyDisabled", 0) \
  TAG(99, "ERadOlm_SwAppDefCheckDisable", 0) \
  TAG(100, "AaFileSicFtpServerTimeout", 0) \
  TAG(101, "AaFileSicFtpClientTimeout", 0) \
  TAG(102, "AaMemAdapterPermanentQuarantineListLength", 0) \
  TAG(103, "AaMemAdapterQuarantineListBlockSizeMin", 0) \
  TAG(104, "AaMemAdapterQuarantineListBlockSizeMax", 0) \
  TAG(105, "AaMemAdapterQuarantineListStopAtCorruption", 0) \
  TAG(106, "AaMemAdapterCallStackFrameSkipCount", 0) \
  TAG(107, "AaMemAdapterBlockDumpPreBytes", 0) \
  TAG(108, "AaMemAdapterBlockDumpPostBytes", 0) \
  TAG(109, "AaTestPortNagleDisable", 0) \
  TAG(110, "AaFileTftpLookupTableSize", 0) \
  TAG(111, "AaConfigSvcReg", 0) \
  TAG(112, "ERadOlm_OLMDaemonWaitTime", 0) \
  TAG(113, "ERadOlm_PrintOLMDaemon", 0) \
  TAG(114, "AaFileFtpClient", 0) \
  TAG(115, "AaSysComStatistics", 0) \
  TAG(116, "AaSysComGwStatistics", 0) \
  TAG(117, "AaSysComStats", 0) \
  TAG(118, "Statistics", 0) \
  TAG(119, "ERadOlm_AaProWDRebootDisable", 0) \
  TAG(120, "AaRTOSApiFatalExceptionDisable", 0) \
  TAG(121, "AaErrorCoreDump", 0) \
  TAG(122, "AaProMemoryOverloadCoefficient", 60) \
  TAG(123, "LinuxSyslog", 0) \
  TAG(124, "AaSysLogLinuxListener", 1) \
  TAG(125, "AaRTOSApi", 0) \
  TAG(126, "AaMemAdapterHeapTracingPoolSize", 0) \
  TAG(127, "AaMemAdapterHeapTracingCallstackDepth", 0) \
  TAG(128, "AaLteTimeSimDrvFrameMultiplier", 1) \
  TAG(129, "AaSysComGwTcp", 0) \
  TAG(130, "ERadOlm_AaSysComGwKeepAliveDisable", 0) \
  TAG(131, "ERadOlm_AaSysComGwKeepCnt", 0) \
  TAG(132, "ERadOlm_AaSysComGwKeepIdle", 0) \
  TAG(133, "ERadOlm_AaSysComGwKeepIntvl", 0) \
  TAG(134, "ERadOlm_AaSysComGwNagleDisable", 0) \
  TAG(135, "ERadOlm_AaSysComGwTcpBufferSize", 0) \
  TAG(136, "ERadOlm_AaSysComGwUdpRxBufferSize", 0) \
  TAG(137, "ERadOlm_AaSysComGwUdpTxBufferSize", 0) \
  TAG(138, "AaProNumberOfCPUMeasurementsPerLogLine", 12) \
  TAG(139, "AaSysMbNodeListDelayTimeout", 0) \
  TAG(140, "AaSysLogFeatureLogRingBuffer", 1) \
  TAG(141, "AaSysLogFeatureLogRingBufferOutputLevel", 0) \
  TAG(142, "ERadOlm_AaSysTimeBaseDisable", 1) \
  TAG(143, "AaSysLogRAMDeviceFileSize", 20971520) \
  TAG(144, "AaTraceAggBufferSize", 0) \
  TAG(145, "AaTraceAggTimeout", 0) \
  TAG(146, "TRSWSyslog", 0) \
  TAG(147, "ERadOlm_AaSNTPToPdSupport", 0) \
  TAG(148, "AaSysLogQuotaCheckDisable", 0) \
  TAG(150, "AaLogCollect", 0) \
  TAG(151, "AaLogCollectorFileSize", 10485760) \
  TAG(152, "AaLogCollectorCompressionDisable", 0)
/* clang-format on */

#endif /* OLM_AACONFIGRADOLMDOMAIN_H */
