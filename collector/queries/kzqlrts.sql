-- kzqlrts: lock rates by resource type. One row per instance of the Locks object that
-- names a resource type (the _Total instance and types without a code are left out).
-- Reads: sys.dm_os_performance_counters (Locks object).
-- Needs: VIEW SERVER STATE.
-- LOCKRSCTYP: 2 database, 3 file, 5 table (Object), 6 page, 7 key, 8 extent, 9 row (RID),
-- 10 application, 11 metadata, 12 heap or B-tree (HoBT), 13 allocation unit.
-- LCKREQSEC, LCKTOSEC, LCKDDLKSEC: lock requests, time-outs and deadlocks per second;
-- LCKWAITTM: milliseconds spent waiting for locks per second. AVGWAITTM: the average wait
-- in ms over the waits since the server started ('Average Wait Time (ms)' over its base).
-- rate: LCKREQSEC, LCKTOSEC, LCKWAITTM, LCKDDLKSEC
WITH counters AS (
    SELECT RTRIM(instance_name) AS inst, RTRIM(counter_name) AS ctr, cntr_value AS val
    FROM sys.dm_os_performance_counters
    WHERE object_name LIKE N'%:Locks'
),
per_type AS (
    SELECT CASE inst
               WHEN N'Database' THEN 2 WHEN N'File' THEN 3 WHEN N'Object' THEN 5
               WHEN N'Page' THEN 6 WHEN N'Key' THEN 7 WHEN N'Extent' THEN 8 WHEN N'RID' THEN 9
               WHEN N'Application' THEN 10 WHEN N'Metadata' THEN 11 WHEN N'HoBT' THEN 12
               WHEN N'AllocUnit' THEN 13 END AS type_code,
           MAX(CASE WHEN ctr = N'Lock Requests/sec' THEN val END) AS requests,
           MAX(CASE WHEN ctr = N'Lock Timeouts/sec' THEN val END) AS timeouts,
           MAX(CASE WHEN ctr = N'Lock Wait Time (ms)' THEN val END) AS wait_ms,
           MAX(CASE WHEN ctr = N'Number of Deadlocks/sec' THEN val END) AS deadlocks,
           MAX(CASE WHEN ctr = N'Average Wait Time (ms)' THEN val END) AS average_wait,
           MAX(CASE WHEN ctr = N'Average Wait Time Base' THEN val END) AS average_wait_base
    FROM counters
    GROUP BY inst
)
SELECT
    CAST(SERVERPROPERTY('MachineName') AS nvarchar(64)) AS HOSTNAME,
    type_code AS LOCKRSCTYP,
    requests AS LCKREQSEC,
    timeouts AS LCKTOSEC,
    wait_ms AS LCKWAITTM,
    deadlocks AS LCKDDLKSEC,
    average_wait / NULLIF(average_wait_base, 0) AS AVGWAITTM
FROM per_type
WHERE type_code IS NOT NULL
ORDER BY type_code;
