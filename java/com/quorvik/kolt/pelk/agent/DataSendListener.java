package com.quorvik.kolt.pelk.agent;

/** Hears the outcome of data sends (asynSendData, sendUDPData). */
public interface DataSendListener {
    void onSendingData(PELKAgentNativeLib.DataTransferEvent event);
}
