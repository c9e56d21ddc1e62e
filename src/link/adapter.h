#pragma once
// SPDX-License-Identifier: Apache-2.0

#include <QByteArray>
#include <QObject>

class Communication;

// Control centre on the main thread: turns the main application's JSON messages into shared
// state and worker threads, and every 200 ms turns pending state (logout, network change,
// avatar, membership) into JSON messages back. Every 1000 ms it checks that the main
// application is still alive. Worker threads never call it; it polls the DataCenter.
class Adapter : public QObject
{
    Q_OBJECT
public:
    Adapter();
    ~Adapter() override;

    // 1 when the local server listens, else 0.
    int start();

    void CheckMainApp();
    bool SendLogoutToMainApp();
    bool IsNeedSendNetError();
    void SendOtherToMainApp();

public slots:
    void onConnected();
    void onDisconnected();
    void onReadyRead(const QByteArray& data);

protected:
    void timerEvent(QTimerEvent* event) override;

private:
    Communication* m_communication;
    int m_checkTimerId = 0;
    int m_sendTimerId = 0;
    bool m_lastNetError = false;
};
