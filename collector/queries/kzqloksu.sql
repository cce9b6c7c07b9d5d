-- kzqloksu: lock summary. One row: the locks of this instance by kind and mode.
-- Reads: sys.dm_tran_locks, sys.dm_os_performance_counters ('Table Lock Escalations/sec'
--        of the Access Methods object).
-- Needs: VIEW SERVER STATE.
-- Counts of lock requests. Intent: IS, IU, IX, SIU, SIX, UIX on any resource (exclusive:
-- IX, SIX, UIX; shared: IS). Extent, page and table: the other modes on extents, pages and
-- tables (exclusive: X, and BU on a table; shared: S; update: U). EXCLOK, SHRLOK:
-- exclusive and shared locks on rows and keys.
-- rate: TLCKESCSEC
WITH lock_rows AS (
    SELECT resource_type,
           request_mode,
           CASE WHEN request_mode IN (N'IS', N'IU', N'IX', N'SIU', N'SIX', N'UIX') THEN 1 ELSE 0 END AS intent
    FROM sys.dm_tran_locks
    WHERE request_session_id <> @@SPID
),
escalation AS (
    SELECT MAX(cntr_value) AS escalations
    FROM sys.dm_os_performance_counters
    WHERE object_name LIKE N'%:Access Methods'
      AND RTRIM(counter_name) = N'Table Lock Escalations/sec'
)
SELECT
    CAST(SERVERPROPERTY('MachineName') AS nvarchar(64)) AS HOSTNAME,
    COUNT(CASE WHEN resource_type = N'EXTENT' AND intent = 0 AND request_mode = N'X' THEN 1 END) AS EXCEXTLOK,
    COUNT(CASE WHEN resource_type = N'EXTENT' AND intent = 0 THEN 1 END) AS TOTEXTLOK,
    COUNT(CASE WHEN resource_type = N'EXTENT' AND intent = 0 AND request_mode = N'U' THEN 1 END) AS UPDEXTLOK,
    COUNT(CASE WHEN request_mode IN (N'IX', N'SIX', N'UIX') THEN 1 END) AS EXCINTLOK,
    COUNT(CASE WHEN request_mode = N'IS' THEN 1 END) AS SHRINTLOK,
    COUNT(CASE WHEN intent = 1 THEN 1 END) AS TOTINTLOK,
    COUNT(CASE WHEN resource_type = N'PAGE' AND intent = 0 AND request_mode = N'X' THEN 1 END) AS EXCPAGLOK,
    COUNT(CASE WHEN resource_type = N'PAGE' AND intent = 0 AND request_mode = N'S' THEN 1 END) AS SHRPAGLOK,
    COUNT(CASE WHEN resource_type = N'PAGE' AND intent = 0 THEN 1 END) AS TOTPAGLOK,
    COUNT(CASE WHEN resource_type = N'PAGE' AND intent = 0 AND request_mode = N'U' THEN 1 END) AS UPDPAGLOK,
    COUNT(CASE WHEN resource_type = N'OBJECT' AND request_mode IN (N'X', N'BU') THEN 1 END) AS EXCTBLLOK,
    COUNT(CASE WHEN resource_type = N'OBJECT' AND request_mode = N'S' THEN 1 END) AS SHRTBLLOK,
    COUNT(CASE WHEN resource_type = N'OBJECT' AND intent = 0 THEN 1 END) AS TOTTBLLOK,
    COUNT(CASE WHEN resource_type IN (N'KEY', N'RID') AND request_mode = N'X' THEN 1 END) AS EXCLOK,
    COUNT(CASE WHEN resource_type IN (N'KEY', N'RID') AND request_mode = N'S' THEN 1 END) AS SHRLOK,
    (SELECT escalations FROM escalation) AS TLCKESCSEC
FROM lock_rows;
