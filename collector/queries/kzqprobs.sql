-- kzqprobs: error summary. One row (see kzqprobd for the source and what it holds).
-- Reads: the ring_buffer target of the system_health session (sys.dm_xe_sessions,
--        sys.dm_xe_session_targets), its error_reported events.
-- Needs: VIEW SERVER STATE.
-- "Current" means the last 60 minutes. LASTERRAGE: minutes since the newest error;
-- MAXSEV, MAXSEVTIME: the highest severity recorded and when it last occurred;
-- NUMSEVG17 / NUMOTHER: errors of severity 17 and up / below 17.
WITH errors AS (
    SELECT
        CONVERT(datetime2(0), SWITCHOFFSET(e.n.value('@timestamp', 'datetimeoffset'),
                                           DATENAME(TZOFFSET, SYSDATETIMEOFFSET()))) AS msg_time,
        e.n.value('(data[@name="severity"]/value)[1]', 'int') AS severity
    FROM (SELECT CAST(t.target_data AS xml) AS data
          FROM sys.dm_xe_sessions AS xs
          JOIN sys.dm_xe_session_targets AS t ON t.event_session_address = xs.address
          WHERE xs.name = N'system_health' AND t.target_name = N'ring_buffer') AS rb
    CROSS APPLY rb.data.nodes('/RingBufferTarget/event[@name="error_reported"]') AS e(n)
),
marked AS (
    SELECT msg_time, severity,
           CASE WHEN msg_time >= DATEADD(minute, -60, GETDATE()) THEN 1 ELSE 0 END AS is_current
    FROM errors
),
summary AS (
    SELECT MAX(msg_time) AS last_time,
           MAX(severity) AS max_severity,
           MAX(CASE WHEN is_current = 1 THEN severity END) AS max_current_severity,
           COUNT(*) AS total,
           COUNT(CASE WHEN is_current = 1 THEN 1 END) AS current_count,
           COUNT(CASE WHEN severity >= 17 THEN 1 END) AS severe,
           COUNT(CASE WHEN severity < 17 THEN 1 END) AS other
    FROM marked
),
worst AS (
    SELECT TOP (1) msg_time
    FROM marked
    ORDER BY severity DESC, msg_time DESC
)
SELECT
    CAST(SERVERPROPERTY('MachineName') AS nvarchar(64)) AS HOSTNAME,
    DATEDIFF(minute, s.last_time, GETDATE()) AS LASTERRAGE,
    CAST(s.max_severity AS nvarchar(2)) AS MAXSEV,
    w.msg_time AS MAXSEVTIME,
    CAST(s.max_current_severity AS nvarchar(2)) AS MAXSEVCURR,
    s.total AS NUMERRORS,
    s.current_count AS NUMCURR,
    s.severe AS NUMSEVG17,
    s.other AS NUMOTHER
FROM summary AS s
LEFT JOIN worst AS w ON 1 = 1;
