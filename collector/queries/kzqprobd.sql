-- kzqprobd: recent errors. One row per error the system_health session recorded
-- (TOP (@max_rows), newest first).
-- Reads: the ring_buffer target of the system_health Extended Events session, which runs
--        on every instance from its start (sys.dm_xe_sessions, sys.dm_xe_session_targets):
--        its error_reported events with their error_number, severity, state, message and
--        the session_id action.
-- Needs: VIEW SERVER STATE.
-- What a least-privilege login can read: the ERRORLOG itself (xp_readerrorlog,
-- sp_readerrorlog) needs securityadmin, which this login does not get; sys.messages holds
-- message texts, not occurrences. system_health records errors of severity 20 and up and
-- the memory and scheduling errors (701, 802, 8645, 8651, 8657, 8902, 17803, ...); the
-- errors below severity 20 reach the agent through its errorlog monitor, which reads the
-- ERRORLOG file.
-- MSGTIME: local time of the error; MSGAGE: minutes since. MSGISSUER, ERRSPID: the session
-- that raised it (spid<n>).
WITH errors AS (
    SELECT
        CONVERT(datetime2(0), SWITCHOFFSET(e.n.value('@timestamp', 'datetimeoffset'),
                                           DATENAME(TZOFFSET, SYSDATETIMEOFFSET()))) AS msg_time,
        e.n.value('(data[@name="error_number"]/value)[1]', 'int') AS error_number,
        e.n.value('(data[@name="severity"]/value)[1]', 'int') AS severity,
        e.n.value('(data[@name="state"]/value)[1]', 'int') AS err_state,
        e.n.value('(data[@name="message"]/value)[1]', 'nvarchar(2048)') AS message,
        e.n.value('(action[@name="session_id"]/value)[1]', 'int') AS session_id
    FROM (SELECT CAST(t.target_data AS xml) AS data
          FROM sys.dm_xe_sessions AS xs
          JOIN sys.dm_xe_session_targets AS t ON t.event_session_address = xs.address
          WHERE xs.name = N'system_health' AND t.target_name = N'ring_buffer') AS rb
    CROSS APPLY rb.data.nodes('/RingBufferTarget/event[@name="error_reported"]') AS e(n)
)
SELECT TOP (@max_rows)
    CAST(SERVERPROPERTY('MachineName') AS nvarchar(64)) AS HOSTNAME,
    msg_time AS MSGTIME,
    DATEDIFF(minute, msg_time, GETDATE()) AS MSGAGE,
    CAST(error_number AS nvarchar(12)) AS ERRORID,
    CAST(severity AS nvarchar(4)) AS SEVERITY,
    err_state AS SQLSTATE,
    N'spid' + CAST(session_id AS nvarchar(8)) AS MSGISSUER,
    message AS MSGTEXT,
    message AS UMSGTEXT,
    N'spid' + CAST(session_id AS nvarchar(8)) AS ERRSPID
FROM errors
ORDER BY msg_time DESC;
