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
)
SELECT
    CAST(SERVERPROPERTY('MachineName') AS nvarchar(64)) AS HOSTNAME,
    SUM(CASE WHEN resource_type = N'EXTENT' AND intent = 0 AND request_mode = N'X' THEN 1 ELSE 0 END) AS EXCEXTLOK,
    SUM(CASE WHEN resource_type = N'EXTENT' AND intent = 0 THEN 1 ELSE 0 END) AS TOTEXTLOK,
    SUM(CASE WHEN resource_type = N'EXTENT' AND intent = 0 AND request_mode = N'U' THEN 1 ELSE 0 END) AS UPDEXTLOK,
    SUM(CASE WHEN request_mode IN (N'IX', N'SIX', N'UIX') THEN 1 ELSE 0 END) AS EXCINTLOK,
    SUM(CASE WHEN request_mode = N'IS' THEN 1 ELSE 0 END) AS SHRINTLOK,
    SUM(intent) AS TOTINTLOK,
    SUM(CASE WHEN resource_type = N'PAGE' AND intent = 0 AND request_mode = N'X' THEN 1 ELSE 0 END) AS EXCPAGLOK,
    SUM(CASE WHEN resource_type = N'PAGE' AND intent = 0 AND request_mode = N'S' THEN 1 ELSE 0 END) AS SHRPAGLOK,
    SUM(CASE WHEN resource_type = N'PAGE' AND intent = 0 THEN 1 ELSE 0 END) AS TOTPAGLOK,
    SUM(CASE WHEN resource_type = N'PAGE' AND intent = 0 AND request_mode = N'U' THEN 1 ELSE 0 END) AS UPDPAGLOK,
    SUM(CASE WHEN resource_type = N'OBJECT' AND request_mode IN (N'X', N'BU') THEN 1 ELSE 0 END) AS EXCTBLLOK,
    SUM(CASE WHEN resource_type = N'OBJECT' AND request_mode = N'S' THEN 1 ELSE 0 END) AS SHRTBLLOK,
    SUM(CASE WHEN resource_type = N'OBJECT' AND intent = 0 THEN 1 ELSE 0 END) AS TOTTBLLOK,
    SUM(CASE WHEN resource_type IN (N'KEY', N'RID') AND request_mode = N'X' THEN 1 ELSE 0 END) AS EXCLOK,
    SUM(CASE WHEN resource_type IN (N'KEY', N'RID') AND request_mode = N'S' THEN 1 ELSE 0 END) AS SHRLOK,
    (SELECT MAX(cntr_value)
     FROM sys.dm_os_performance_counters
     WHERE object_name LIKE N'%:Access Methods'
       AND RTRIM(counter_name) = N'Table Lock Escalations/sec') AS TLCKESCSEC
FROM lock_rows;
